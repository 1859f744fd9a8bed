#include "tools/report/report_verdict.h"

#include <algorithm>

namespace quorvelctl {
namespace {

std::vector<std::pair<std::string, double>> spentOf(const Json& json) {
  std::vector<std::pair<std::string, double>> spent;
  for (const char* state : {"running", "runnable", "uninterruptible", "sleeping", "stopped", "unknown"}) {
    const double ms = numberMember(json, (std::string(state) + "Ms").c_str());
    if (ms > 0) spent.emplace_back(state, ms);
  }
  if (spent.size() == 1 && spent.front().first == "unknown") return {};  // which tells nothing
  std::sort(spent.begin(), spent.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  return spent;
}

ReportVerdict::Wait waitOf(const Json& json) {
  ReportVerdict::Wait wait{numberMember(json, "ts"), numberMember(json, "durationMs"),
                           textMember(json, "state"), textMember(json, "waitChannel"), std::nullopt};
  if (member(json, "wokenBy").is_object()) wait.wokenBy = verdictThreadOf(member(json, "wokenBy"));
  return wait;
}

ReportVerdict::Link linkOf(const Json& json) {
  const Json& waitsFor = member(json, "waitsFor");
  return {verdictThreadOf(json),
          textMember(json, "text"),
          textMember(waitsFor, "sureness"),
          textMember(waitsFor, "evidence"),
          textMember(json, "function"),
          !textMember(json, "culprit").empty(),
          integerMember(waitsFor, "tid")};
}

std::vector<ReportVerdict::Pressure> pressureOf(const Json& json) {
  std::vector<ReportVerdict::Pressure> pressure;
  for (const char* resource : {"cpu", "memory", "io"}) {
    const Json& figures = member(json, resource);
    if (!figures.is_object()) continue;
    pressure.push_back({resource, numberMember(figures, "some10"), std::nullopt});
    if (member(figures, "full10").is_number()) pressure.back().full = numberMember(figures, "full10");
  }
  return pressure;
}

}  // namespace

VerdictThread verdictThreadOf(const Json& json) {
  return {integerMember(json, "tid"), textMember(json, "name"), integerMember(json, "pid"),
          textMember(json, "process")};
}

std::optional<ReportVerdict> verdictOf(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  ReportVerdict verdict;
  verdict.cause = textMember(json, "cause");
  verdict.sentence = textMember(json, "sentence");
  verdict.function = textMember(json, "function");
  const Json& evidence = member(json, "evidence");
  verdict.evidence = {textMember(evidence, "source"), numberMember(evidence, "windowMs"),
                      numberMember(evidence, "coveredMs"), integerMember(evidence, "eventsLost")};
  verdict.spent = spentOf(member(json, "spent"));
  verdict.waits = rowsOf<ReportVerdict::Wait>(member(json, "waits"), waitOf);
  verdict.busiest = rowsOf<ReportVerdict::Busy>(member(json, "busiest"), [](const Json& row) {
    return ReportVerdict::Busy{verdictThreadOf(row), numberMember(row, "runningMs")};
  });
  verdict.chain = rowsOf<ReportVerdict::Link>(member(json, "chain"), linkOf);
  if (const Json& disk = member(json, "disk"); disk.is_object()) {
    verdict.disk = {integerMember(disk, "requests"),
                    std::max<int64_t>(integerMember(disk, "readBytes"), 0),
                    std::max<int64_t>(integerMember(disk, "writtenBytes"), 0),
                    numberMember(disk, "busyMs"),
                    numberMember(disk, "slowestMs"),
                    std::nullopt};
    if (member(disk, "rival").is_object()) verdict.disk->rival = verdictThreadOf(member(disk, "rival"));
  }
  verdict.pressure = pressureOf(member(json, "pressure"));
  return verdict;
}

}  // namespace quorvelctl
