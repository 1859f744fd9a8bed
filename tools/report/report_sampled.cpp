#include "tools/report/report_sampled.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "tools/base/table.h"
#include "tools/base/units.h"

namespace quorvelctl {
namespace {

// More than a report has; its stacks may be a circle, so that a small one could have very long ones.
constexpr size_t kMaxPlacesRead = 64;
constexpr size_t kMaxFramesRead = 256;
constexpr size_t kMaxPlacesTold = 12;
constexpr size_t kFunctionsTold = 5;

ReportSampled::Spent sampledTimeOf(const Json& json) {
  const auto ms = [&](const char* key) { return std::max(numberMember(json, key), 0.0); };
  return {ms("onCpuMs"), ms("readyMs"), ms("waitedMs")};
}

std::string functionsText(const ReportSampled::Place& place) {
  const std::vector<ReportFrame>& stack = place.stack;
  if (stack.empty()) return place.inKernel.empty() ? "(unknown)" : printable(place.inKernel) + " (kernel)";
  std::string text = stack.front().name;
  if (!place.inKernel.empty()) text += " (" + place.inKernel + ")";
  for (size_t i = 1; i < std::min(stack.size(), kFunctionsTold); i++)
    text += (i == 1 ? "  from " : ", ") + stack[i].name;
  return printable(stack.size() > kFunctionsTold ? text + ", ..." : text);
}

}  // namespace

ReportSampled sampledOf(const Json& report) {
  const Json& frames = member(report, "stackFrames");
  const Json& json = member(member(report, "metadata"), "sampled");
  ReportSampled sampled;
  sampled.durationMs = numberMember(json, "durationMs");
  sampled.samples = static_cast<size_t>(std::max<int64_t>(integerMember(json, "samples"), 0));
  sampled.notSeen = sampledTimeOf(member(json, "notSeen"));
  for (const Json& entry : member(json, "places")) {
    if (sampled.places.size() == kMaxPlacesRead) break;
    ReportSampled::Place& place = sampled.places.emplace_back();
    place.spent = sampledTimeOf(entry);
    place.inKernel = kernelFrame(frames, textMember(entry, "sf"));
    place.stack = userStack(frames, textMember(entry, "sf"), kMaxFramesRead);
  }
  return sampled;
}

std::string sampledHeading(const ReportSampled& sampled) {
  const std::string by = sampled.samples == 0   ? "without ever running"
                         : sampled.samples == 1 ? "by 1 sample"
                                                : "by " + std::to_string(sampled.samples) + " samples";
  return "Where it was in the last " + durationText(sampled.durationMs) + ", " + by;
}

std::vector<std::vector<std::string>> sampledRows(const ReportSampled& sampled) {
  std::vector<std::vector<std::string>> rows;
  if (!(sampled.durationMs > 0)) return rows;
  const auto add = [&](const ReportSampled::Spent& spent, const std::string& where) {
    const double percent = 100 * spent.sum() / sampled.durationMs;
    if (percent < 0.5) return;
    const auto part = [](double ms) { return ms < 1 ? std::string("-") : durationText(ms); };
    rows.push_back({fixed(percent, 0) + " %", durationText(spent.sum()), part(spent.onCpuMs),
                    part(spent.readyMs), part(spent.waitedMs), where});
  };
  for (size_t i = 0; i < std::min(sampled.places.size(), kMaxPlacesTold); i++)
    add(sampled.places[i].spent, functionsText(sampled.places[i]));
  add(sampled.notSeen, "(not seen)");
  return rows;
}

std::string sampledText(const ReportSampled& sampled) {
  if (!(sampled.durationMs > 0)) return {};
  std::vector<std::vector<std::string>> rows = sampledRows(sampled);
  rows.insert(rows.begin(), {"SHARE", "FOR", "ON CPU", "READY", "WAITED", "IN"});
  return "\n" + sampledHeading(sampled) + "\n" + table(rows);
}

}  // namespace quorvelctl
