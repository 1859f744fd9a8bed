#include "tools/report/report.h"

#include <algorithm>
#include <utility>

#include "tools/report/report_json.h"

namespace quorvelctl {
namespace {

// Beyond what a report has; its threads may share their frames, so that a small one could have very many.
constexpr size_t kMaxFrames = 512;
constexpr size_t kMaxThreads = 2048;

ReportHeader headerOf(const Json& metadata) {
  ReportHeader header;
  header.reason = textMember(metadata, "Reason");
  header.serviceName = textMember(metadata, "ServiceName");
  header.processPath = textMember(metadata, "ProcessPath");
  header.pid = integerMember(metadata, "PID");
  header.threadId = integerMember(metadata, "ThreadID");
  header.startTicks = integerMember(metadata, "StartTime");
  header.endTicks = integerMember(metadata, "EndTime");
  const Json& display = member(metadata, "DisplayData");
  for (size_t i = 0; display.is_array() && i + 1 < display.size(); i += 2) {
    if (!display[i].is_number_integer() || !display[i + 1].is_number_integer()) continue;
    header.display.emplace_back(display[i].get<int64_t>(), display[i + 1].get<int64_t>());
  }
  return header;
}

std::string hostOf(const Json& host) {
  std::string line;
  for (const char* key : {"system", "kernel", "machine"}) {
    const std::string part = textMember(host, key);
    if (!part.empty()) line += (line.empty() ? "" : ", ") + part;
  }
  const auto cpus = integerMember(host, "cpus");
  return cpus == 0 ? line : line + ", " + std::to_string(cpus) + " CPUs";
}

ReportThread threadOf(const Json& json) {
  ReportThread thread;
  thread.tid = integerMember(json, "tid");
  thread.name = textMember(json, "name");
  thread.pid = integerMember(json, "pid");
  thread.process = textMember(json, "process");
  thread.hung = member(json, "hung") == true;
  thread.state = textMember(json, "state");
  thread.waitChannel = textMember(json, "waitChannel");
  thread.syscall = textMember(json, "syscallName");
  if (thread.syscall.empty() && member(json, "syscall").is_number()) {
    thread.syscall = std::to_string(integerMember(json, "syscall"));
  }
  thread.userMs = numberMember(json, "userMs");
  thread.systemMs = numberMember(json, "systemMs");
  for (const Json& frame : member(json, "kernelStack")) {
    if (frame.is_string()) thread.kernelStack.push_back(frame.get<std::string>());
  }
  thread.noStack = textMember(json, "noStack");
  thread.stackCutOff = textMember(json, "stackCutOff");
  return thread;
}

/// The threads with their stacks, the hung one first.
std::vector<ReportThread> threadsOf(const Json& report, const Trace& trace) {
  std::vector<ReportThread> threads;
  for (const Json& entry : member(report, "threads")) {
    if (threads.size() == kMaxThreads) break;
    ReportThread thread = threadOf(entry);
    const auto frame = trace.innermostFrames.find(thread.tid);
    if (frame != trace.innermostFrames.end())
      thread.userStack = userStack(member(report, "stackFrames"), frame->second, kMaxFrames);
    threads.push_back(std::move(thread));
  }
  const auto hung =
      std::find_if(threads.begin(), threads.end(), [](const ReportThread& thread) { return thread.hung; });
  if (hung != threads.end()) std::rotate(threads.begin(), hung, hung + 1);
  return threads;
}

/// Empty of anything but a signature: databases have 16 characters for it.
std::string signatureOf(const Json& metadata) {
  std::string text = textMember(metadata, "signature");
  const bool isOne = text.size() == 16 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
  return isOne ? text : std::string();
}

std::optional<ReportMetadata> metadataOf(const Json& json, std::string& error) {
  if (!json.is_object()) {
    error = "it has no metadata";
    return std::nullopt;
  }
  ReportMetadata metadata;
  metadata.header = headerOf(json);
  metadata.writtenBy = textMember(json, "writtenBy");
  metadata.madeAt = textMember(member(json, "capture"), "time");
  metadata.lookedAtUs = numberMember(member(json, "capture"), "ts");
  metadata.host = hostOf(member(json, "host"));
  metadata.signature = signatureOf(json);
  metadata.verdict = verdictOf(member(json, "verdict"));
  metadata.launch = launchOf(member(json, "launch"));
  for (const Json& omission : member(json, "leftOut")) {
    metadata.leftOut.emplace_back(textMember(omission, "what"), textMember(omission, "why"));
  }
  return metadata;
}

}  // namespace

double ReportHeader::durationMs() const {
  return (static_cast<double>(endTicks) - static_cast<double>(startTicks)) / kTicksPerMs;
}

std::string ReportHeader::processName() const {
  return processPath.substr(processPath.rfind('/') + 1);
}

std::string ReportHeader::kind() const {
  if (!hasHang()) return "trace";
  if (pid == 0) return "slow launch";
  return serviceName == "Fence-hang" ? "fence hang" : "hang";
}

std::optional<ReportMetadata> parseReportMetadata(std::string_view bytes, std::string& error) {
  const auto metadata = parseMetadataJson(bytes, error);
  return metadata ? metadataOf(*metadata, error) : std::nullopt;
}

std::optional<Report> parseReport(std::string_view bytes, std::string& error) {
  TraceReader trace;
  const auto json = parseReportJson(
      bytes, [&](const Json& event) { trace.take(event); }, error);
  auto metadata = json ? metadataOf(member(*json, "metadata"), error) : std::nullopt;
  if (!metadata) return std::nullopt;
  Report report{std::move(*metadata), {}, trace.finish(), {}};
  report.threads = threadsOf(*json, report.trace);
  report.sampled = sampledOf(*json);
  return report;
}

}  // namespace quorvelctl
