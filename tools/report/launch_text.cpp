#include "tools/report/launch_text.h"

#include <algorithm>
#include <array>
#include <utility>

#include "tools/base/table.h"
#include "tools/base/units.h"
#include "tools/report/verdict_text.h"

namespace quorvelctl {
namespace {

constexpr size_t kMaxLaunchRows = 10;

/// A hundredth of a launch is worth no line.
constexpr double kLeastOfLaunch = 0.01;

std::string pathDoingText(const ReportLaunch::Share& share) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kTexts{
      {{"running", "on the CPU"},
       {"runnable", "ready, but not run"},
       {"sleeping", "asleep"},
       {"uninterruptible", "waiting in the kernel"},
       {"disk", "waiting for a disk"},
       {"stopped", "stopped"}}};
  const auto known =
      std::find_if(kTexts.begin(), kTexts.end(), [&](const auto& one) { return one.first == share.doing; });
  const std::string text = known == kTexts.end() ? share.doing : std::string(known->second);
  return share.function.empty() ? text : text + ", in " + share.function;
}

std::string threadsText(const ReportLaunch::Share& share, const ReportHeader& header) {
  const std::string text = threadText(share.thread, header);
  return share.threads > 1 ? text + " and " + std::to_string(share.threads - 1) + " more" : text;
}

std::string markText(const std::string& what, const std::string& process, int64_t pid) {
  return pid == 0 ? what : what + " of " + process + " (" + std::to_string(pid) + ")";
}

std::string launchSection(const char* heading, TextRows rows) {
  for (auto& row : rows) {
    for (std::string& cell : row) cell = printable(cell);
  }
  return tableSection(heading, rows);
}

}  // namespace

TextRows pathRows(const ReportLaunch& launch, const ReportHeader& header) {
  TextRows rows{{"FOR", "SHARE", "DOING", "THREAD"}};
  for (const ReportLaunch::Share& share : launch.path) {
    if (rows.size() > kMaxLaunchRows || share.durationMs < header.durationMs() * kLeastOfLaunch) break;
    rows.push_back({durationText(share.durationMs), shareText(share.durationMs, header.durationMs()),
                    pathDoingText(share), threadsText(share, header)});
  }
  return rows;
}

TextRows phaseRows(const ReportLaunch& launch, const ReportHeader& header) {
  TextRows rows{{"FOR", "FROM", "TO", "MOSTLY"}};
  std::string from = "begin";
  for (const ReportLaunch::Phase& phase : launch.phases) {
    const std::string to = markText(phase.to, phase.process, phase.pid);
    const auto& mostly = phase.mostly;
    rows.push_back({durationText(phase.durationMs), from, to,
                    mostly ? threadsText(*mostly, header) + " " + pathDoingText(*mostly) : "-"});
    from = to;
  }
  return rows;
}

TextRows processRows(const ReportLaunch& launch, const ReportHeader& header) {
  TextRows rows{{"PID", "PROCESS", "MADE BY", "MADE", "ENDED", "THREADS", "CPU"}};
  const auto at = [&](double us) { return us > 0 ? offsetText(us, header) : std::string("-"); };
  for (const ReportLaunch::Process& process : launch.processes) {
    if (rows.size() > kMaxLaunchRows) break;
    rows.push_back({std::to_string(process.pid), process.name,
                    process.parent == 0 ? "the launcher" : std::to_string(process.parent), at(process.madeUs),
                    at(process.endedUs), std::to_string(process.threads), durationText(process.runningMs)});
  }
  return rows;
}

std::string moreProcessesText(const ReportLaunch& launch) {
  const auto shown = static_cast<int64_t>(std::min(launch.processes.size(), kMaxLaunchRows));
  return launch.processCount > shown ? "and " + std::to_string(launch.processCount - shown) + " more" : "";
}

std::string launchText(const ReportMetadata& report) {
  if (!report.launch) return {};
  const ReportLaunch& launch = *report.launch;
  const std::string more = moreProcessesText(launch);
  return launchSection("What the launch took its time for", pathRows(launch, report.header)) +
         launchSection("Its phases", phaseRows(launch, report.header)) +
         launchSection("Its processes", processRows(launch, report.header)) +
         (more.empty() ? "" : "  " + more + "\n");
}

}  // namespace quorvelctl
