#include "tools/page/launch_html.h"

#include <string>

#include "tools/report/launch_text.h"

namespace quorvelctl {
namespace {

/// A column's name as pages write it: "Made by" of "MADE BY".
std::string headText(std::string name) {
  const bool isShort = name == "PID" || name == "CPU";
  for (size_t i = isShort ? name.size() : 1; i < name.size(); ++i) {
    if (name[i] >= 'A' && name[i] <= 'Z') name[i] = static_cast<char>(name[i] - 'A' + 'a');
  }
  return name;
}

/// A table of texts, the first row of which is its head; nothing without another.
Html rowsHtml(const char* heading, const TextRows& rows, const std::string& more = {}) {
  if (rows.size() < 2) return {};
  Html columns;
  for (const std::string& name : rows.front()) columns += Html{"<th scope=col>"} + escaped(headText(name));
  Html body;
  for (size_t i = 1; i < rows.size(); ++i) {
    Html cells;
    for (const std::string& text : rows[i]) cells += element("td", "", text);
    body += element("tr", "", cells) + Html{"\n"};
  }
  Html content = element("h3", "", heading) + scrolledTable(heading, columns, body);
  if (!more.empty()) content += element("p", "note", more);
  return element("section", "", content);
}

}  // namespace

Html launchHtml(const Report& report) {
  if (!report.launch) return {};
  const ReportLaunch& launch = *report.launch;
  const Html tables = rowsHtml("What it took its time for", pathRows(launch, report.header)) +
                      rowsHtml("Phases", phaseRows(launch, report.header)) +
                      rowsHtml("Processes", processRows(launch, report.header), moreProcessesText(launch));
  return tables.markup.empty() ? Html{}
                               : element("section", "card", element("h2", "", "The launch") + tables);
}

}  // namespace quorvelctl
