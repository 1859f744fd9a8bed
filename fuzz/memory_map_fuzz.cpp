// The text of /proc/PID/maps, in pieces as it is read. Where it is cut makes no difference, and what comes of
// it is in order.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "kelvane/base/proc_text.h"
#include "kelvane/threads/memory_map.h"

namespace {

std::vector<kelvane::MappedModule> modulesOf(std::string_view text, size_t pieceBytes) {
  kelvane::MemoryMapParser parser;
  for (; !text.empty(); text.remove_prefix(std::min(pieceBytes, text.size()))) {
    parser.feed(text.substr(0, pieceBytes));
  }
  return parser.finish();
}

bool isInOrder(std::string_view text) {
  uint64_t end = 0;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    const auto mapping = kelvane::parseMapsLine(line);
    if (!mapping) continue;
    if (mapping->start < end || mapping->end <= mapping->start) return false;
    end = mapping->end;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  const auto modules = modulesOf(text, size);
  const auto inPieces = modulesOf(text, size_t{data[0]} + 1);
  if (modules.size() != inPieces.size()) std::abort();
  const bool inOrder = isInOrder(text);
  for (size_t i = 0; i < modules.size(); ++i) {
    const kelvane::MappedModule& module = modules[i];
    if (module.path != inPieces[i].path || module.end != inPieces[i].end) std::abort();
    if (!module.executable) std::abort();
    if (!inOrder) continue;
    if (module.start >= module.end || module.firstEnd > module.end) std::abort();
    if (i > 0 && module.start < modules[i - 1].end) std::abort();
  }
  return 0;
}
