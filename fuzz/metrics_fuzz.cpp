// The counters' file, which quorvelctl reads from wherever it is pointed to.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tools/metrics/metrics_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  size_t brokenLine = 0;
  const auto metrics =
      quorvelctl::parseMetrics(std::string_view(reinterpret_cast<const char*>(data), size), brokenLine);
  if (!metrics) {
    if (brokenLine == 0 || brokenLine > size + 1) std::abort();
    return 0;
  }
  for (const auto& [key, distribution] : metrics->distributions) {
    (void)distribution.meanMs();
    for (const double share : {0.0, 0.5, 1.0}) (void)distribution.boundOf(share);
  }
  return 0;
}
