#include "tools/export/report_line.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

namespace quorvelctl {
namespace {

const ReportThread* hungThread(const Report& report) {
  return !report.threads.empty() && report.threads.front().hung ? &report.threads.front() : nullptr;
}

std::string innermost(const Report& report) {
  const ReportThread* thread = hungThread(report);
  return thread && !thread->userStack.empty() ? thread->userStack.front().name : "";
}

std::string ownerText(const VerdictThread& thread) {
  return thread.process.empty() || thread.process == thread.name ? thread.name
                                                                 : thread.process + "/" + thread.name;
}

nlohmann::ordered_json textOrNull(const std::string& text) {
  return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

double spentMs(const Report& report, const char* state) {
  if (!report.verdict) return 0;
  for (const auto& [name, ms] : report.verdict->spent) {
    if (name == state) return ms;
  }
  return 0;
}

}  // namespace

std::string culpritOf(const Report& report) {
  if (!report.verdict) return innermost(report);
  const auto& chain = report.verdict->chain;
  const auto culprit =
      std::find_if(chain.begin(), chain.end(), [](const auto& link) { return link.isCulprit; });
  return culprit == chain.end() ? innermost(report) : ownerText(culprit->thread);
}

nlohmann::ordered_json reportLine(const Report& report, const std::string& fileName, time_t writtenAt,
                                  const std::string& device) {
  const ReportHeader& header = report.header;
  tm parts{};
  char date[32] = "";
  if (gmtime_r(&writtenAt, &parts)) std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%SZ", &parts);
  nlohmann::ordered_json line{
      {"file", fileName},
      {"writtenAt", date},
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
