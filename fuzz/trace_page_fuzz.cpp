// A kept page of the flight recorder, through the walk over its events and the decoder.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "kelvane/recording/event_decoder.h"
#include "kelvane/recording/trace_page.h"

namespace {

/// Lets `source` have the number `id` and its members one after the other, as wide as the kernel's are.
std::string formatOf(const kelvane::EventSource& source, unsigned id) {
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kelvane::EventDecoder decoder;
  unsigned id = 0;
  for (const kelvane::EventSource& source : kelvane::kEventSources) {
    if (!decoder.add(source, formatOf(source, id++))) std::abort();
  }
  kelvane::TracePage page(std::span(data, size));
  size_t bytes = 0;
  while (const auto event = page.next()) {
    bytes += event->bytes.size() + sizeof(uint32_t);
    if (bytes > size) std::abort();  // no event twice
    decoder.decode(event->bytes, event->atNs, 0);
  }
  decoder.takeTexts();
  decoder.takeNames();
  return 0;
}
