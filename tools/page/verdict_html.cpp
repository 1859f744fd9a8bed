#include "tools/page/verdict_html.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "tools/base/units.h"
#include "tools/page/flame_html.h"
#include "tools/report/verdict_text.h"

namespace quorvelctl {
namespace {

Html row(std::initializer_list<Html> cells) {
  Html content;
  for (const Html& cell : cells) content += cell;
  return element("tr", "", content) + Html{"\n"};
}

Html cell(std::string_view text) {
  return element("td", "", text);
}

Html number(std::string_view text) {
  return element("td", "number", text);
}

/// A list with its heading; nothing of one without rows.
Html listHtml(const char* heading, const char* columns, const Html& rows) {
  if (rows.markup.empty()) return {};
  return element("section", "", element("h3", "", heading) + scrolledTable(heading, Html{columns}, rows));
}

/// A bar behind a number: how much of `whole` it is.
Html meter(double part, double whole) {
  const double share = whole > 0 ? std::clamp(part / whole, 0.0, 1.0) : 0;
  char style[64];
  std::snprintf(style, sizeof style, "<i style=\"width:%.2f%%\"></i>", share * 100);
  return element("span", "meter", Html{style});
}

/// One bar of all states, and below it their names with their shares.
Html spentHtml(const ReportVerdict& verdict, const ReportHeader& header) {
  if (verdict.spent.empty()) return {};
  double total = 0;
  for (const auto& [state, ms] : verdict.spent) total += ms;
  Html bar;
  Html legend;
  for (const auto& [state, ms] : verdict.spent) {
    if (isNegligible(ms, verdict)) break;
    char part[96];
    std::snprintf(part, sizeof part, "<i class=\"%s\" style=\"flex-grow:%.5f\"></i>", state.c_str(),
                  std::max(ms / total, 0.003));
    bar += Html{part};
    legend += element("li", "",
                      element("i", state, "") + element("b", "", shareText(ms, total)) +
                          escaped(" " + state + ", " + durationText(ms)));
  }
  return element("h3", "", header.pid == 0 ? "The launching thread" : "The hung thread") +
         Html{"<div class=\"bar\" aria-hidden=\"true\">"} + bar + Html{"</div>"} +
         element("ul", "legend", legend);
}

Html waitsHtml(const ReportVerdict& verdict, const ReportHeader& header) {
  Html rows;
  for (const ReportVerdict::Wait& wait : verdict.waits) {
    if (isNegligible(wait.durationMs, verdict)) break;
    Html state = escaped(wait.state);
    if (!wait.waitChannel.empty()) state += escaped(" in ") + element("span", "code", wait.waitChannel);
    rows += row({number(durationText(wait.durationMs)), number(offsetText(wait.atUs, header)),
                 element("td", "", state), cell(wait.wokenBy ? threadText(*wait.wokenBy, header) : "–")});
  }
  return listHtml("Its longest waits",
                  "<th scope=col>For<th scope=col>From<th scope=col>State<th scope=col>Woken by", rows);
}

Html busiestHtml(const ReportVerdict& verdict, const ReportHeader& header) {
  const double covered = verdict.evidence.coveredMs;
  Html rows;
  for (const ReportVerdict::Busy& busy : verdict.busiest) {
    if (isNegligible(busy.runningMs, verdict)) break;
    rows +=
        row({cell(threadText(busy.thread, header)), number(durationText(busy.runningMs)),
             number(shareText(busy.runningMs, covered)), element("td", "", meter(busy.runningMs, covered))});
  }
  return listHtml("Busiest other threads",
                  "<th scope=col>Thread<th scope=col>Ran<th scope=col colspan=2>Of a CPU", rows);
}

Html factsHtml(const ReportVerdict& verdict, const ReportHeader& header) {
  Html facts;
  const auto add = [&](std::string_view what, const std::string& value) {
    facts += element("div", "", element("dt", "", what) + element("dd", "", value));
  };
  if (verdict.disk) add("Disk", diskText(*verdict.disk));
  for (const ReportVerdict::Pressure& pressure : verdict.pressure) {
    add(pressure.resource == "cpu"  ? "CPU pressure"
        : pressure.resource == "io" ? "I/O pressure"
                                    : "Memory pressure",
        pressureText(pressure));
  }
  add("Evidence", evidenceText(verdict.evidence, header));
  return element("dl", "", facts);
}

}  // namespace

Html timeHtml(const ReportVerdict& verdict, const ReportHeader& header) {
  return element("section", "card time",
                 element("h2", "", "Where the time went") + spentHtml(verdict, header) +
                     element("div", "pair", waitsHtml(verdict, header) + busiestHtml(verdict, header)) +
                     factsHtml(verdict, header));
}

Html sampledHtml(const ReportSampled& sampled) {
  Html rows;
  for (const std::vector<std::string>& cells : sampledRows(sampled)) {
    Html content;
    for (const std::string& text : cells) content += &text == &cells.back() ? cell(text) : number(text);
    rows += row({content});
  }
  if (rows.markup.empty()) return {};
  const std::string heading = sampledHeading(sampled);
  const Html columns{
      "<th scope=col>Share<th scope=col>For<th scope=col>On CPU<th scope=col>Ready<th scope=col>Waited"
      "<th scope=col>In"};
  return element("section", "card",
                 element("h2", "", heading) + flameHtml(sampled) + scrolledTable(heading, columns, rows));
}

}  // namespace quorvelctl
