// What the process that looks at a hung one hands to the daemon. It may have been taken over by the files
// that it parsed: whatever it says, every index leads somewhere.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kelvane/capture/findings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  kelvane::ProcessCapture whole;
  kelvane::addFindings(bytes.substr(0, size / 2), whole);
  kelvane::addFindings(bytes, whole);
  for (const kelvane::ThreadCapture& thread : whole.threads) {
    if (!thread.stack) continue;
    for (const uint32_t frame : thread.stack->frames) {
      if (frame >= whole.frames.size()) std::abort();
    }
  }
  for (const kelvane::SampledStack& sample : whole.samples) {
    for (const uint32_t frame : sample.frames) {
      if (frame >= whole.frames.size()) std::abort();
    }
  }
  for (const kelvane::Frame& frame : whole.frames) {
    if (frame.module < -1 || frame.module >= static_cast<int64_t>(whole.modules.size())) std::abort();
  }
  kelvane::encodeFindings(whole);
  return 0;
}
