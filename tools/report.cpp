#include "tools/report.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

namespace quorvelctl {
namespace {

using Json = nlohmann::json;

constexpr double kTicksPerMs = 24'000;
constexpr size_t kMaxFrames = 4096;

const Json& member(const Json& object, const char* key) {
  static const Json kNone;
  if (!object.is_object()) return kNone;
  const auto found = object.find(key);
  return found == object.end() ? kNone : *found;
}

std::string text(const Json& object, const char* key) {
  const Json& value = member(object, key);
  return value.is_string() ? value.get<std::string>() : std::string();
}

template <typename Number>
Number number(const Json& object, const char* key) {
  const Json& value = member(object, key);
  return value.is_number() ? value.get<Number>() : Number{};
}

uint64_t hexNumber(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 16);
}

ReportHeader headerOf(const Json& metadata) {
  ReportHeader header;
  header.reason = text(metadata, "Reason");
  header.serviceName = text(metadata, "ServiceName");
  header.processPath = text(metadata, "ProcessPath");
  header.pid = number<int64_t>(metadata, "PID");
  header.threadId = number<int64_t>(metadata, "ThreadID");
  header.startTicks = number<int64_t>(metadata, "StartTime");
  header.endTicks = number<int64_t>(metadata, "EndTime");
  const Json& display = member(metadata, "DisplayData");
  for (size_t i = 0; display.is_array() && i + 1 < display.size(); i += 2) {
    if (!display[i].is_number() || !display[i + 1].is_number()) continue;
    header.display.emplace_back(display[i].get<int64_t>(), display[i + 1].get<int64_t>());
  }
  return header;
}

std::string hostOf(const Json& host) {
  std::string line;
  for (const char* key : {"system", "kernel", "machine"}) {
    const std::string part = text(host, key);
    if (!part.empty()) line += (line.empty() ? "" : ", ") + part;
  }
  const auto cpus = number<int64_t>(host, "cpus");
  return cpus == 0 ? line : line + ", " + std::to_string(cpus) + " CPUs";
}

/// The user's frames from the innermost outwards, starting at the frame `id`.
std::vector<ReportFrame> userStack(const Json& frames, std::string id) {
  std::vector<ReportFrame> stack;
  for (size_t steps = 0; !id.empty() && steps < kMaxFrames; ++steps) {
    const Json& frame = member(frames, id.c_str());
    if (text(frame, "category") != "kernel" && frame.is_object()) {
      stack.push_back({text(frame, "name"), text(frame, "module"), text(frame, "build_id"),
                       hexNumber(text(frame, "offset"))});
    }
    id = text(frame, "parent");
  }
  return stack;
}

/// By thread, the id of the innermost frame of its stack.
std::map<int64_t, std::string> innermostFrames(const Json& events) {
  std::map<int64_t, std::string> frames;
  for (const Json& event : events) {
    if (text(event, "ph") == "P") frames[number<int64_t>(event, "tid")] = text(event, "sf");
  }
  return frames;
}

ReportThread threadOf(const Json& json) {
  ReportThread thread;
  thread.tid = number<int64_t>(json, "tid");
  thread.name = text(json, "name");
  thread.hung = member(json, "hung") == true;
  thread.state = text(json, "state");
  thread.waitChannel = text(json, "waitChannel");
  thread.syscall = text(json, "syscallName");
  if (thread.syscall.empty() && member(json, "syscall").is_number()) {
    thread.syscall = std::to_string(number<int64_t>(json, "syscall"));
  }
  thread.userMs = number<double>(json, "userMs");
  thread.systemMs = number<double>(json, "systemMs");
  for (const Json& frame : member(json, "kernelStack")) {
    if (frame.is_string()) thread.kernelStack.push_back(frame.get<std::string>());
  }
  thread.noStack = text(json, "noStack");
  thread.stackCutOff = text(json, "stackCutOff");
  return thread;
}

}  // namespace

double ReportHeader::durationMs() const {
  return (static_cast<double>(endTicks) - static_cast<double>(startTicks)) / kTicksPerMs;
}

std::string ReportHeader::processName() const {
  return processPath.substr(processPath.rfind('/') + 1);
}

std::string ReportHeader::kind() const {
  if (pid == 0) return "slow launch";
  return serviceName == "Fence-hang" ? "fence hang" : "hang";
}

std::optional<ReportHeader> parseReportHeader(std::string_view bytes, std::string& error) {
  constexpr std::string_view kStart = "{\"metadata\":";
  if (!bytes.starts_with(kStart)) {
    const std::optional<Report> report = parseReport(bytes, error);
    return report ? std::optional(report->header) : std::nullopt;
  }
  std::istringstream rest{std::string(bytes.substr(kStart.size()))};
  try {
    Json metadata;
    rest >> metadata;  // reads one value and no further
    return headerOf(metadata);
  } catch (const Json::exception& problem) {
    error = problem.what();
    return std::nullopt;
  }
}

std::optional<Report> parseReport(std::string_view bytes, std::string& error) {
  try {
    const Json json = Json::parse(bytes);
    const Json& metadata = member(json, "metadata");
    if (!metadata.is_object()) {
      error = "it has no metadata";
      return std::nullopt;
    }
    Report report;
    report.header = headerOf(metadata);
    report.madeAt = text(member(metadata, "capture"), "time");
    report.host = hostOf(member(metadata, "host"));
    for (const Json& omission : member(metadata, "leftOut")) {
      report.leftOut.emplace_back(text(omission, "what"), text(omission, "why"));
    }
    const std::map<int64_t, std::string> innermost = innermostFrames(member(json, "traceEvents"));
    for (const Json& entry : member(json, "threads")) {
      ReportThread thread = threadOf(entry);
      const auto frame = innermost.find(thread.tid);
      if (frame != innermost.end()) thread.userStack = userStack(member(json, "stackFrames"), frame->second);
      report.threads.push_back(std::move(thread));
    }
    const auto hung = std::find_if(report.threads.begin(), report.threads.end(),
                                   [](const ReportThread& thread) { return thread.hung; });
    if (hung != report.threads.end()) std::rotate(report.threads.begin(), hung, hung + 1);
    return report;
  } catch (const Json::exception& problem) {
    error = problem.what();
    return std::nullopt;
  }
}

}  // namespace quorvelctl
