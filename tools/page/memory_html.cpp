#include "tools/page/memory_html.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>

#include "tools/base/units.h"
#include "tools/memory/memory_growth.h"
#include "tools/memory/memory_series.h"
#include "tools/memory/memory_text.h"
#include "tools/page/chart.h"
#include "tools/page/html.h"
#include "tools/page/report_page.h"

namespace quorvelctl {
namespace {

/// The style has so many colours for names, one for what is left over, one for what is unaccounted for and
/// one for what is free.
constexpr size_t kColours = 8;
constexpr size_t kMaxTableRows = 20;

Html sizeCell(const std::string& text) {
  return element("td", "number", text);
}

/// Names and sizes with each one's share of `wholeBytes`, largest first and no more than kMaxTableRows.
Html sizesHtml(const std::string& title, const std::vector<NamedBytes>& entries, uint64_t wholeBytes) {
  Html rows;
  uint64_t restBytes = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i >= kMaxTableRows) {
      restBytes += entries[i].bytes;
      continue;
    }
    const double share =
        wholeBytes == 0 ? 0 : 100.0 * static_cast<double>(entries[i].bytes) / static_cast<double>(wholeBytes);
    rows += element("tr", "",
                    element("td", "", entries[i].name) + sizeCell(sizeText(entries[i].bytes)) +
                        element("td", "",
                                Html{"<span class=\"meter\"><i style=\"width:" +
                                     fixed(std::min(share, 100.0), 1) + "%\"></i></span>"}));
  }
  if (entries.empty()) return {};
  Html content = element("h3", "", title) +
                 scrolledTable(title, Html{"<th scope=col>Name<th scope=col>Size<th scope=col>Share"}, rows);
  if (entries.size() > kMaxTableRows) {
    content +=
        element("p", "note",
                "and " + std::to_string(entries.size() - kMaxTableRows) + " more, " + sizeText(restBytes));
  }
  return element("div", "", content);
}

std::vector<NamedBytes> byName(const std::vector<MemoryProcess>& processes) {
  struct Program {
    uint64_t bytes = 0;
    size_t count = 0;
  };
  std::map<std::string, Program> programs;
  for (const MemoryProcess& process : processes) {
    programs[process.name].bytes += process.footprintBytes;
    ++programs[process.name].count;
  }
  std::vector<NamedBytes> sums;
  sums.reserve(programs.size());
  for (const auto& [name, program] : programs) {
    sums.push_back({program.count == 1 ? name : name + " × " + std::to_string(program.count), program.bytes});
  }
  std::sort(sums.begin(), sums.end(), [](const NamedBytes& a, const NamedBytes& b) {
    return std::tie(b.bytes, a.name) < std::tie(a.bytes, b.name);
  });
  return sums;
}

Html accountHtml(const MemoryReport& report) {
  const std::optional<MemoryAccount> account = accountOf(report);
  if (!account) {
    return element(
        "p", "note",
        "The report has no account: " + (report.vmError.empty() ? "figures are missing" : report.vmError));
  }
  std::vector<NamedBytes> parts = account->parts;
  std::erase_if(parts, [](const NamedBytes& part) { return part.bytes == 0; });
  parts.push_back({kUnaccounted, static_cast<uint64_t>(std::max<int64_t>(account->unaccountedBytes, 0))});
  const std::string doubt = doubtText(report, *account);
  return sizesHtml("Of " + sizeText(account->totalBytes) + " that the kernel hands out", parts,
                   account->totalBytes) +
         (doubt.empty() ? Html{} : element("p", "sentence", doubt));
}

/// One report in tables.
Html reportHtml(const MemoryReport& report) {
  uint64_t footprints = 0;
  for (const MemoryProcess& process : report.processes) footprints += process.footprintBytes;
  const std::string bounds = hasUpperBounds(report) ? ", upper bounds: forks hold pages together" : "";
  return element("section", "card",
                 element("h2", "", "At " + timeText(report.timestamp)) + accountHtml(report) +
                     element("div", "pair",
                             sizesHtml("Processes, those of one name together" + bounds,
                                       byName(report.processes), footprints) +
                                 sizesHtml("Kernel zones", report.zones, sumOf(report.zones)) +
                                 sizesHtml("Other uses of memory", report.uses, sumOf(report.uses)) +
                                 sizesHtml("Kernel consumers, which overlap", report.consumers,
                                           sumOf(report.consumers))));
}

Html growthHtml(const MemoryGrowth& growth) {
  Html rows;
  for (const Growth& found : growth.growing) {
    rows += element("tr", "",
                    element("td", "", found.name) + element("td", "", found.kind) +
                        sizeCell(sizeText(static_cast<uint64_t>(found.trend.bytesPerHour)) + " an hour") +
                        sizeCell(sizeText(found.nowBytes)));
  }
  Html content = element("h2", "", "What grows steadily");
  if (growth.reports < kLeastGrowthReports) {
    content += element("p", "note", "Too few reports since the machine's last start to tell.");
  } else if (growth.growing.empty()) {
    content += element("p", "note", "Nothing, since the machine's last start.");
  } else {
    content +=
        scrolledTable("What grows steadily",
                      Html{"<th scope=col>Name<th scope=col>Kind<th scope=col>Rate<th scope=col>Now"}, rows);
  }
  return element("section", "card", content);
}

std::vector<ChartLine> coloured(const std::vector<MemorySeries::Line>& lines) {
  std::vector<ChartLine> drawn;
  drawn.reserve(lines.size());
  for (const MemorySeries::Line& line : lines) drawn.push_back({line.name, line.bytes, drawn.size()});
  return drawn;
}

std::vector<ChartLine> colouredAccount(const MemorySeries& series) {
  std::vector<ChartLine> drawn = coloured(series.account);
  const size_t named = drawn.size() - 2;
  if (named > kColours) drawn[kColours].colour = kColours;
  drawn[named].colour = kColours + 1;
  drawn[named + 1].colour = kColours + 2;
  return drawn;
}

Html chartsHtml(const MemorySeries& series) {
  const ChartTimes times{series.hours, series.starts};
  const auto card = [](const char* title, const Html& chart) {
    return element("section", "card", element("h2", "", title) + chart);
  };
  Html charts = card("Where the memory is", areaChart(times, colouredAccount(series), series.totalBytes));
  if (!series.processes.empty()) {
    charts +=
        card("Largest processes, those of one name together", lineChart(times, coloured(series.processes)));
  }
  if (!series.zones.empty()) charts += card("Largest kernel zones", lineChart(times, coloured(series.zones)));
  return charts;
}

Html titleHtml(const std::vector<MemoryReport>& reports) {
  const MemoryReport& last = reports.back();
  std::string line = last.osVersion + " · " + last.model;
  if (reports.size() > 1) {
    const size_t restarts = startsOf(reports).back();
    line += " · " + std::to_string(reports.size()) + " reports from " + timeText(reports.front().timestamp) +
            " to " + timeText(last.timestamp);
    if (restarts > 0) {
      line += " · " + std::to_string(restarts) + (restarts == 1 ? " restart" : " restarts") + " between";
    }
  } else {
    line += " · " + timeText(last.timestamp);
  }
  return element("header", "", element("h1", "", "Where the memory is") + element("p", "", line));
}

}  // namespace

std::string memoryPage(const std::vector<MemoryReport>& reports) {
  const MemorySeries series = seriesOf(reports, kColours);
  const bool hasTime = series.hours.size() > 1;
  return wholePage("Memory at " + timeText(reports.back().timestamp),
                   std::string(kReportStyle) + std::string(kMemoryStyle),
                   titleHtml(reports) +
                       (hasTime ? chartsHtml(series) + growthHtml(growthOf(reports)) : Html{}) +
                       reportHtml(reports.back()));
}

}  // namespace quorvelctl
