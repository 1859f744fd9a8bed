#pragma once

#include <cstdlib>
#include <string>

#include "kelvane/recording/event_decoder.h"

namespace kelvane_fuzz {

/// Lets `source` have the number `id` and its members one after the other, as wide as the kernel's are.
inline std::string formatOf(const kelvane::EventSource& source, unsigned id) {
  std::string text = "name: x\nID: " + std::to_string(id) + "\n\tfield:int common_pid;\toffset:4;\tsize:4;\n";
  size_t offset = 8;
  for (const char* field : source.fields) {
    if (!field) break;
    const std::string name = field;
    const size_t size = name == "buf" ? 0 : name.ends_with("comm") || name == "rwbs" ? 16 : 8;
    text += "\tfield:long " + name + ";\toffset:" + std::to_string(offset) +
            ";\tsize:" + std::to_string(size) + ";\n";
    offset += size;
  }
  return text + "{ 0x1, \"S\" } { 0x2, \"D\" }";
}

/// A decoder that knows every event, numbered in their order.
inline kelvane::EventDecoder decoderOfAll() {
  kelvane::EventDecoder decoder;
  unsigned id = 0;
  for (const kelvane::EventSource& source : kelvane::kEventSources) {
    if (!decoder.add(source, formatOf(source, id++))) std::abort();
  }
  return decoder;
}

}  // namespace kelvane_fuzz
