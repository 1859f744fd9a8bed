#include "tools/export/report_line.h"

#include <nlohmann/json.hpp>

#include "tools/base/table.h"
#include "tools/base/units.h"
#include "tools/report/verdict_text.h"

namespace quorvelctl {
namespace {

const ReportThread* hungThread(const Report& report) {
  return !report.threads.empty() && report.threads.front().hung ? &report.threads.front() : nullptr;
}

std::string innermost(const Report& report) {
  const ReportThread* thread = hungThread(report);
  return thread && !thread->userStack.empty() ? thread->userStack.front().name : "";
}

double spentMs(const Report& report, const char* state) {
  if (!report.verdict) return 0;
  for (const auto& [name, ms] : report.verdict->spent) {
    if (name == state) return ms;
  }
  return 0;
}

}  // namespace

nlohmann::ordered_json reportLine(const Report& report, const std::string& fileName, time_t writtenAt,
                                  const std::string& device) {
  const ReportHeader& header = report.header;
  nlohmann::ordered_json line{
      {"file", fileName},
      {"writtenAt", utcTime(writtenAt)},
      {"device", device},
      {"host", textOrNull(report.host)},
      {"version", textOrNull(report.writtenBy)},
      {"kind", header.kind()},
      {"process", header.processName()},
      {"pid", header.pid},
      {"hang", header.serviceName},
      {"reason", textOrNull(header.reason)},
      {"durationMs", nullptr},
      {"cause", textOrNull(report.verdict ? report.verdict->cause : "")},
      {"sentence", textOrNull(report.verdict ? report.verdict->sentence : "")},
      {"culprit", textOrNull(culpritOf(report))},
      {"function", textOrNull(innermost(report))},
      {"signature", textOrNull(report.signature)},
  };
  if (header.durationMs() >= 0) line["durationMs"] = header.durationMs();
  for (const char* state : {"running", "runnable", "sleeping", "uninterruptible"})
    line[std::string(state) + "Ms"] = spentMs(report, state);
  return line;
}

}  // namespace quorvelctl
