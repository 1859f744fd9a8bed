#include "tools/report/verdict_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "tools/base/table.h"
#include "tools/base/units.h"

namespace quorvelctl {
namespace {

/// Of each list: who wants them all has the page, and the report.
constexpr size_t kMaxRowsShown = 5;

/// What each cause is called on its badge; the first one is for what is none of them.
constexpr std::array<std::pair<std::string_view, std::string_view>, 19> kCauses{{
    {"unknown", "cause unknown"},
    {"own-cpu", "likely cause: own CPU time"},
    {"starved", "likely cause: starved of CPU"},
    {"disk", "likely cause: disk"},
    {"lock", "likely cause: lock"},
    {"peer", "likely cause: another process"},
    {"child", "likely cause: a child process"},
    {"file-lock", "likely cause: a lock on a file"},
    {"network", "likely cause: network"},
    {"server", "likely cause: a file system's server"},
    {"deadlock", "likely cause: deadlock"},
    {"priority-inversion", "likely cause: priority inversion"},
    {"throttled", "likely cause: a control group's limit"},
    {"frozen", "likely cause: it was frozen"},
    {"swapping", "likely cause: swapping"},
    {"memory", "likely cause: memory"},
    {"stopped", "likely cause: it was stopped"},
    {"suspended", "likely cause: suspend"},
    {"sleeping", "likely cause: it slept"},
}};

using Rows = std::vector<std::vector<std::string>>;

std::string indented(const std::string& lines) {
  std::string text;
  for (size_t at = 0; at < lines.size();) {
    const size_t end = lines.find('\n', at) + 1;
    text += "  " + lines.substr(at, end - at);
    at = end;
  }
  return text;
}

std::string spentText(const ReportVerdict& verdict, const ReportHeader& header) {
  constexpr double kBarWidth = 30;
  if (verdict.spent.empty()) return {};
  double total = 0;
  for (const auto& [state, ms] : verdict.spent) total += ms;
  Rows rows{{"STATE", "FOR", "SHARE", ""}};
  for (const auto& [state, ms] : verdict.spent) {
    if (isNegligible(ms, verdict)) break;
    const auto bar = static_cast<size_t>(std::lround(ms / total * kBarWidth));
    rows.push_back({state, durationText(ms), shareText(ms, total), std::string(bar, '#')});
  }
  return tableSection("How " + std::string(followedText(header)) + " spent the time", rows);
}

std::string waitsText(const ReportVerdict& verdict, const ReportHeader& header) {
  Rows rows{{"FOR", "FROM", "STATE", "IN", "WOKEN BY"}};
  for (const ReportVerdict::Wait& wait : verdict.waits) {
    if (rows.size() > kMaxRowsShown || isNegligible(wait.durationMs, verdict)) break;
    rows.push_back({durationText(wait.durationMs), offsetText(wait.atUs, header), printable(wait.state),
                    wait.waitChannel.empty() ? "-" : printable(wait.waitChannel),
                    wait.wokenBy ? printable(threadText(*wait.wokenBy, header)) : "-"});
  }
  return tableSection("Its longest waits", rows);
}

/// A picture of it, from the hung thread down; the culprit is marked.
std::string chainText(const ReportVerdict& verdict, const ReportHeader& header) {
  const std::vector<ReportVerdict::Link>& chain = verdict.chain;
  std::string text = chain.empty() ? "" : "\nWho waited for whom\n";
  for (size_t i = 0; i < chain.size(); ++i) {
    const ReportVerdict::Link& link = chain[i];
    const std::optional<size_t> back = backTo(chain, i);
    const bool isLast = i + 1 == chain.size();
    text += (link.isCulprit ? "  => " : "     ") + printable(linkText(verdict, header, i));
    if (!link.function.empty()) text += ", in " + printable(link.function);
    text += (isLast && !back ? "\n       " : "\n     | ") + printable(stepText(link)) + "\n";
    if (!isLast) text += "     v\n";
    if (back) text += "     '-> back to " + printable(chain[*back].thread.name) + "\n";
  }
  return text;
}

std::string busiestText(const ReportVerdict& verdict, const ReportHeader& header) {
  Rows rows{{"RAN", "OF A CPU", "THREAD"}};
  for (const ReportVerdict::Busy& busy : verdict.busiest) {
    if (rows.size() > kMaxRowsShown || isNegligible(busy.runningMs, verdict)) break;
    rows.push_back({durationText(busy.runningMs), shareText(busy.runningMs, verdict.evidence.coveredMs),
                    printable(threadText(busy.thread, header))});
  }
  return tableSection("Busiest other threads", rows);
}

std::string factsText(const ReportVerdict& verdict, const ReportHeader& header) {
  Rows rows;
  const auto add = [&](const std::string& what, const std::string& value) {
    rows.push_back({what, printable(value)});
  };
  if (verdict.disk) add("disk", diskText(*verdict.disk));
  for (const ReportVerdict::Pressure& pressure : verdict.pressure) {
    add(pressure.resource + " pressure", pressureText(pressure));
  }
  add("evidence", evidenceText(verdict.evidence, header));
  return "\n" + indented(table(rows));
}

std::string ownerText(const VerdictThread& thread) {
  return thread.process.empty() || thread.process == thread.name ? thread.name
                                                                 : thread.process + "/" + thread.name;
}

std::string percentText(double percent) {
  char text[64];
  std::snprintf(text, sizeof text, "%.1f %%", percent);
  return text;
}

}  // namespace

std::string tableSection(const std::string& heading, const std::vector<std::vector<std::string>>& rows) {
  return rows.size() < 2 ? "" : "\n" + heading + "\n" + indented(table(rows));
}

const std::vector<std::string>& causeNames() {
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> names;
    names.reserve(kCauses.size());
    for (const auto& [name, text] : kCauses) names.emplace_back(name);
    return names;
  }();
  return kNames;
}

std::string_view causeText(const std::string& cause) {
  const auto known =
      std::find_if(kCauses.begin(), kCauses.end(), [&](const auto& entry) { return entry.first == cause; });
  return known == kCauses.end() ? kCauses.front().second : known->second;
}

std::string_view followedText(const ReportHeader& header) {
  return header.pid == 0 ? "the launching thread" : "the hung thread";
}

bool isNegligible(double ms, const ReportVerdict& verdict) {
  constexpr double kShare = 0.0005;  // which is told as 0.0 %
  return ms < verdict.evidence.windowMs * kShare;
}

std::string threadText(const VerdictThread& thread, const ReportHeader& header) {
  if (thread.tid == 0) return thread.name;  // an interrupt
  std::string text = thread.name + " (" + std::to_string(thread.tid) + ")";
  if (thread.pid == 0 && thread.process.empty()) return text;
  if (thread.pid != 0 && thread.pid == header.pid) return text + " of the same process";
  if (thread.pid == thread.tid && thread.process == thread.name) return text;
  return text + " of " + thread.process + (thread.pid == 0 ? "" : " (" + std::to_string(thread.pid) + ")");
}

bool isCulprit(const ReportMetadata& report, int64_t tid) {
  return report.verdict && std::any_of(report.verdict->chain.begin(), report.verdict->chain.end(),
                                       [&](const ReportVerdict::Link& link) {
                                         return link.isCulprit && link.thread.tid == tid;
                                       });
}

std::string linkText(const ReportVerdict& verdict, const ReportHeader& header, size_t index) {
  const VerdictThread& thread = verdict.chain[index].thread;
  // What the hung one belongs to has been said.
  return index == 0 ? thread.name + " (" + std::to_string(thread.tid) + ")" : threadText(thread, header);
}

std::optional<size_t> backTo(const std::vector<ReportVerdict::Link>& chain, size_t index) {
  if (index + 1 != chain.size() || chain[index].waitsFor == 0) return std::nullopt;
  for (size_t i = 0; i < chain.size(); ++i) {
    if (chain[i].thread.tid == chain[index].waitsFor) return i;
  }
  return std::nullopt;
}

std::string stepText(const ReportVerdict::Link& link) {
  if (link.sureness.empty() || link.sureness == "certain") return link.text;
  return link.text + (link.sureness == "likely" ? " (likely)" : " (a guess)");
}

std::string culpritOf(const ReportMetadata& metadata) {
  if (!metadata.verdict) return {};
  const ReportVerdict& verdict = *metadata.verdict;
  if (verdict.disk && verdict.disk->rival) return ownerText(*verdict.disk->rival);
  std::string culprits;
  for (const ReportVerdict::Link& link : verdict.chain) {
    if (link.isCulprit) culprits += (culprits.empty() ? "" : " and ") + ownerText(link.thread);
  }
  if (!culprits.empty()) return culprits;
  if ((verdict.cause == "own-cpu" || verdict.cause == "peer") && metadata.launch)
    return ownerText(metadata.launch->followed);
  if (verdict.cause == "own-cpu" || verdict.cause == "sleeping") return verdict.function;
  return verdict.cause == "starved" && !verdict.busiest.empty() ? ownerText(verdict.busiest.front().thread)
                                                                : std::string();
}

std::string diskText(const ReportVerdict::Disk& disk) {
  if (disk.requests == 0) return "no requests";
  return std::to_string(disk.requests) + (disk.requests == 1 ? " request, " : " requests, ") +
         sizeText(static_cast<uint64_t>(disk.readBytes)) + " read, " +
         sizeText(static_cast<uint64_t>(disk.writtenBytes)) + " written; busy for " +
         durationText(disk.busyMs) + ", the slowest took " + durationText(disk.slowestMs);
}

std::string pressureText(const ReportVerdict::Pressure& pressure) {
  const std::string some = "some tasks waited " + percentText(pressure.some) + " of the last 10 s";
  return pressure.full ? some + ", all " + percentText(*pressure.full) : some;
}

std::string evidenceText(const ReportVerdict::Evidence& evidence, const ReportHeader& header) {
  const std::string look =
      evidence.source == "recorder" || header.pid == 0 ? "" : "one look at the process; ";
  if (evidence.source == "samples") {
    return "samples of " + durationText(evidence.coveredMs) + " of " + durationText(evidence.windowMs) +
           " (" + shareText(evidence.coveredMs, evidence.windowMs) + ")";
  }
  if (evidence.coveredMs <= 0) return look + "nothing of that time is recorded";
  const std::string text = look + "recorder: " + durationText(evidence.coveredMs) + " of " +
                           durationText(evidence.windowMs) + " covered (" +
                           shareText(evidence.coveredMs, evidence.windowMs) + ")";
  return text + ", " + (evidence.eventsLost == 0 ? "no" : std::to_string(evidence.eventsLost)) +
         " events lost";
}

std::string shareText(double part, double whole) {
  return whole > 0 ? percentText(100 * part / whole) : "-";
}

std::string offsetText(double atUs, const ReportHeader& header) {
  const double ms = (atUs - static_cast<double>(header.startTicks) / kTicksPerUs) / 1000;
  return (ms < 0 ? "-" : "+") + durationText(ms < 0 ? -ms : ms);
}

std::string verdictText(const ReportVerdict& verdict, const ReportHeader& header) {
  return printable(verdict.sentence) + "\n" + chainText(verdict, header) + spentText(verdict, header) +
         waitsText(verdict, header) + busiestText(verdict, header) + factsText(verdict, header);
}

}  // namespace quorvelctl
