// Two memory reports, one after the other in the input, each in words, what changed between them, and both
// drawn.
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/memory/memory_diff.h"
#include "tools/memory/memory_report.h"
#include "tools/memory/memory_text.h"
#include "tools/page/memory_html.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  constexpr std::string_view kBetween = "\n====\n";
  constexpr size_t kMaxRows = 5;
  const size_t end = text.find(kBetween);
  std::string error;
  const auto older = quorvelctl::parseMemoryReport(text.substr(0, end), error);
  if (!older) return 0;
  quorvelctl::memoryText(*older, kMaxRows);
  quorvelctl::accountOf(*older);
  if (end == std::string_view::npos) return 0;
  const auto newer = quorvelctl::parseMemoryReport(text.substr(end + kBetween.size()), error);
  if (!newer) return 0;
  quorvelctl::memoryDiffText(*older, *newer, kMaxRows);
  quorvelctl::memoryPage({*older, *newer});
  return 0;
}
