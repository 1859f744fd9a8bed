// Texts of /proc, parts of which an application chooses: its threads' names, the paths that it maps.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kelvane/base/proc_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  constexpr size_t kMaxFrames = 8;
  kelvane::parseStat(text);
  kelvane::parseStatusNumber(text, "VmRSS");
  kelvane::parseInnerId(text);
  kelvane::parseClockOffset(text, "monotonic");
  kelvane::parseSyscall(text);
  if (kelvane::parseKernelStack(text, kMaxFrames).size() > kMaxFrames) std::abort();
  if (const auto line = kelvane::parseMapsLine(text)) {
    if (kelvane::unescapePath(line->path).size() > size) std::abort();
  }
  kelvane::parseOsReleaseName(text);
  return 0;
}
