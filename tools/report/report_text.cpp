#include "tools/report/report_text.h"

#include <string>
#include <vector>

#include "tools/base/table.h"
#include "tools/base/units.h"
#include "tools/report/launch_text.h"
#include "tools/report/verdict_text.h"

namespace quorvelctl {
namespace {

std::string frameText(const ReportFrame& frame) {
  const std::string place = frame.place();
  return printable(place.empty() || frame.name == place ? frame.name : frame.name + "  (" + place + ")");
}

std::string headerText(const Report& report) {
  const ReportHeader& header = report.header;
  std::string title = header.kind();
  if (header.hasHang()) title += " " + header.serviceName + ": " + header.processName();
  const int64_t pid = report.launch ? report.launch->pid : header.pid;
  if (pid != 0) title += " (pid " + std::to_string(pid) + ")";
  if (header.hasHang()) title += ", " + durationText(header.durationMs());
  std::vector<std::vector<std::string>> rows;
  const auto add = [&](const char* what, const std::string& value) {
    if (!value.empty()) rows.push_back({what, printable(value)});
  };
  add("reason", header.reason);
  add("process", header.processPath);
  if (header.threadId != 0) add("thread", std::to_string(header.threadId));
  if (header.hasHang())
    add("ticks", std::to_string(header.startTicks) + " to " + std::to_string(header.endTicks));
  add("display", displayText(header));
  add("made", report.madeAt + (report.writtenBy.empty() ? "" : " by " + report.writtenBy));
  add("host", report.host);
  std::string text = printable(title) + "\n\n";
  if (report.verdict) text += verdictText(*report.verdict, header) + launchText(report) + "\n";
  return text + table(rows);
}

/// `role`: "which hung".
std::string stackText(const ReportThread& thread, const char* role) {
  std::string text = "\nThread " + std::to_string(thread.tid) + " " + printable(ownerText(thread)) + ", " +
                     role + ": " + printable(doingText(thread)) + "\n";
  text += "CPU time so far: " + fixed(thread.userMs, 0) + " ms user, " + fixed(thread.systemMs, 0) +
          " ms system\n";
  text += "\n  kernel, innermost first\n";
  for (const std::string& frame : thread.kernelStack) text += "    " + printable(frame) + "\n";
  if (thread.kernelStack.empty()) text += "    (none)\n";
  text += "\n  user, innermost first\n";
  for (const ReportFrame& frame : thread.userStack) text += "    " + frameText(frame) + "\n";
  if (!thread.stackCutOff.empty()) text += "    (ends here: " + printable(thread.stackCutOff) + ")\n";
  if (thread.userStack.empty())
    text += "    (none" + printable(thread.noStack.empty() ? "" : ": " + thread.noStack) + ")\n";
  return text;
}

std::string otherThreadsText(const Report& report) {
  std::vector<std::vector<std::string>> rows{{"THREAD", "NAME", "DOING", "INNERMOST FRAME"}};
  for (const ReportThread& thread : report.threads) {
    if (thread.hung || isCulprit(report, thread.tid)) continue;
    const std::string frame = thread.userStack.empty() ? "-" : frameText(thread.userStack.front());
    rows.push_back(
        {std::to_string(thread.tid), printable(ownerText(thread)), printable(doingText(thread)), frame});
  }
  return rows.size() == 1 ? "" : "\nOther threads\n" + table(rows);
}

}  // namespace

std::string ownerText(const ReportThread& thread) {
  if (thread.pid == 0) return thread.name;
  return thread.name + " of " + thread.process + " (pid " + std::to_string(thread.pid) + ")";
}

std::string doingText(const ReportThread& thread) {
  std::string text = thread.state;
  if (!thread.waitChannel.empty()) text += " in " + thread.waitChannel;
  if (!thread.syscall.empty()) text += ", system call " + thread.syscall;
  return text;
}

std::string displayText(const ReportHeader& header) {
  std::string text;
  for (const auto& [ticks, state] : header.display) {
    if (!text.empty()) text += ", then ";
    text += state == 0 ? "off" : state < 0 ? "unknown" : "on";
    const double beforeMs =
        (static_cast<double>(header.startTicks) - static_cast<double>(ticks)) / kTicksPerMs;
    text += beforeMs >= 0 ? " from " + durationText(beforeMs) + " before it began"
                          : " from " + durationText(-beforeMs) + " into it";
  }
  return text;
}

std::string reportText(const Report& report) {
  std::string text = headerText(report) + sampledText(report.sampled);
  if (!report.threads.empty() && report.threads.front().hung) {
    text += stackText(report.threads.front(), "which hung");
  } else if (report.header.pid != 0) {
    text += "\nThe thread that hung had ended, or could not be looked at.\n";
  }
  for (const ReportThread& thread : report.threads) {
    if (!thread.hung && isCulprit(report, thread.tid)) text += stackText(thread, "the culprit");
  }
  text += otherThreadsText(report);
  if (!report.leftOut.empty()) text += "\nLeft out\n";
  for (const auto& [what, why] : report.leftOut)
    text += "  " + printable(what) + ": " + printable(why) + "\n";
  return text;
}

}  // namespace quorvelctl
