// A report that somebody hands in, through all that quorvelctl shows of it.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tools/page/report_html.h"
#include "tools/report/report.h"
#include "tools/report/report_list.h"
#include "tools/report/report_text.h"

namespace {

bool has(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  if (const auto metadata = quorvelctl::parseReportMetadata(text, error)) {
    quorvelctl::displayText(metadata->header);
    const std::vector<quorvelctl::ReportEntry> entries{{"a.kelvane", 0, size, *metadata, {}}};
    quorvelctl::reportTable(entries);
    quorvelctl::groupTable(quorvelctl::reportGroups(entries));
  }
  const auto report = quorvelctl::parseReport(text, error);
  if (!report) return 0;
  quorvelctl::reportText(*report);
  // What begins a script and isn't the page's own came from the report.
  static const std::string own = quorvelctl::reportPage({});
  const std::string page = quorvelctl::reportPage(*report);
  const auto scripts = [](const std::string& html) {
    size_t count = 0;
    for (size_t at = 0; (at = html.find("<script", at)) != std::string::npos; ++at) ++count;
    return count;
  };
  if (scripts(page) != scripts(own) || has(page, "<img")) std::abort();
  return 0;
}
