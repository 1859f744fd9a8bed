#include "kelvane/report/report.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "kelvane/base/deadline.h"
#include "kelvane/report/host_info.h"
#include "kelvane/report/launch_json.h"
#include "kelvane/report/recorder_tracks.h"
#include "kelvane/report/sampled_track.h"
#include "kelvane/report/signature.h"
#include "kelvane/report/stack_tree.h"
#include "kelvane/report/trace_events.h"
#include "kelvane/report/verdict_json.h"
#include "kelvane/verdict/display_names.h"
#include "kelvane/verdict/syscall_names.h"

namespace kelvane {
namespace {

constexpr int kFormatVersion = 1;

void writeText(JsonWriter& json, const char* key, const std::string& text) {
  if (!text.empty()) json.member(key, std::string_view(text));
}

void writeOmissions(JsonWriter& json, const std::vector<Omission>& omissions) {
  for (const Omission& omission : omissions) {
    json.beginObject();
    json.member("what", std::string_view(omission.what));
    json.member("why", std::string_view(omission.why));
    json.endObject();
  }
}

void writeHost(JsonWriter& json) {
  HostInfo host = readHostInfo();
  json.key("host");
  json.beginObject();
  writeText(json, "system", host.system);
  writeText(json, "kernel", host.kernel);
  writeText(json, "machine", host.machine);
  json.member("cpus", host.cpus);
  json.endObject();
}

std::string utcText(time_t seconds) {
  tm parts{};
  char text[40] = "";
  if (gmtime_r(&seconds, &parts)) strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

void writeCapture(JsonWriter& json, const Report& report) {
  uint64_t stacks = 0;
  uint64_t stoppedUs = 0;
  uint64_t longestUs = 0;
  const auto count = [&](const ThreadCapture& thread) {
    if (!thread.stack) return;
    stacks++;
    stoppedUs += thread.stack->stoppedUs;
    longestUs = std::max<uint64_t>(longestUs, thread.stack->stoppedUs);
  };
  for (const ThreadCapture& thread : report.process.threads) count(thread);
  for (const OtherThread& other : report.process.others) count(other.thread);
  json.key("capture");
  json.beginObject();
  json.member("time", std::string_view(utcText(time(nullptr))));
  json.memberMicroseconds("ts", report.capturedAtNs);
  json.memberMicroseconds("tookUs", report.captureNs);
  json.member("threads", report.process.threadCount);
  json.member("threadsListed", report.process.threads.size());
  json.member("stacks", stacks);
  json.member("stoppedUs", stoppedUs);
  json.member("longestStopUs", longestUs);
  json.member("processes", report.processes.processCount);
  json.endObject();
}

void writeMetadata(JsonWriter& json, const Report& report, const RecorderTracks& tracks,
                   const SampledTrack& sampled) {
  json.key("metadata");
  json.beginObject();
  json.member("format", "kelvane");
  json.member("version", kFormatVersion);
  json.member("writtenBy", "kelvane " QUORVELD_VERSION);
  for (const auto& [key, value] : report.request.header) {
    json.key(key);
    json.raw(value);
  }
  writeText(json, "ReasonString", report.request.rawReason);
  if (report.request.minTicks) json.member("MinTimestamp", *report.request.minTicks);
  if (report.request.maxTicks) json.member("MaxTimestamp", *report.request.maxTicks);
  writeHost(json);
  writeCapture(json, report);
  writeText(json, "signature", signatureOf(report));
  if (report.verdict) writeVerdict(json, *report.verdict, report.process);
  if (report.launch) writeLaunch(json, *report.launch);
  sampled.writeTable(json);
  json.key("leftOut");
  json.beginArray();
  writeOmissions(json, report.request.omissions);
  writeOmissions(json, report.process.omissions);
  writeOmissions(json, report.processes.omissions);
  writeOmissions(json, report.recording.omissions);
  writeOmissions(json, tracks.omissions());
  json.endArray();
  json.endObject();
}

/// `other`: whose thread it is, if it is none of the process.
void writeThread(JsonWriter& json, const ThreadCapture& thread, bool hung, const OtherThread* other) {
  const ThreadFacts& facts = thread.facts;
  json.beginObject();
  json.member("tid", facts.tid);
  json.member("name", std::string_view(facts.comm));
  if (other) {
    json.member("pid", other->pid);
    json.member("process", std::string_view(other->process));
  }
  if (hung) json.member("hung", true);
  json.member("state", stateName(facts.state));
  writeText(json, "waitChannel", facts.waitChannel);
  if (facts.syscall && facts.syscall->number >= 0) {
    json.member("syscall", facts.syscall->number);
    if (const char* name = syscallName(facts.syscall->number)) json.member("syscallName", name);
  }
  json.member("userMs", facts.userMs);
  json.member("systemMs", facts.systemMs);
  json.member("voluntarySwitches", facts.voluntarySwitches);
  json.member("involuntarySwitches", facts.involuntarySwitches);
  if (!facts.kernelStack.empty()) {
    json.key("kernelStack");
    json.beginArray();
    for (const std::string& frame : facts.kernelStack) json.value(std::string_view(frame));
    json.endArray();
  }
  if (thread.stack) {
    json.member("frames", thread.stack->frames.size());
    json.member("stoppedUs", thread.stack->stoppedUs);
    writeText(json, "stackCutOff", thread.stack->cutOff);
  }
  writeText(json, "noStack", thread.noStack);
  json.endObject();
}

void writeProcesses(JsonWriter& json, const ProcessScan& scan) {
  json.key("processes");
  json.beginArray();
  for (const AwakeProcess& process : scan.awake) {
    json.beginObject();
    json.member("pid", process.pid);
    json.member("name", std::string_view(process.comm));
    json.member("state", stateName(process.state));
    writeText(json, "waitChannel", process.waitChannel);
    json.endObject();
  }
  json.endArray();
}

}  // namespace

Report makeBareReport(DumpRequest request, const std::string& why) {
  Report report;
  report.capturedAtNs = monotonicNs();
  report.request = std::move(request);
  report.process.pid = report.request.pid.value_or(0);
  report.process.omissions.push_back({"process", why});
  return report;
}

void writeReport(const Report& report, JsonWriter& json) {
  StackTree stacks(report.process);
  const SampledTrack sampled(report.request, report.process, stacks);
  const TraceEvents events(report.request, report.process, stacks, sampled, report.capturedAtNs);
  RecorderTracks tracks(report.recording, report.launch ? report.launch->followed : report.process);
  json.beginObject();
  writeMetadata(json, report, tracks, sampled);
  json.member("displayTimeUnit", "ms");
  json.key("traceEvents");
  json.beginArray();
  events.writeEvents(json);
  tracks.writeEvents(json);
  json.endArray();
  json.key("stackFrames");
  stacks.write(json);
  json.key("threads");
  json.beginArray();
  for (const ThreadCapture& thread : report.process.threads) {
    writeThread(json, thread, thread.facts.tid == report.process.hungThread, nullptr);
  }
  for (const OtherThread& other : report.process.others) writeThread(json, other.thread, false, &other);
  json.endArray();
  writeProcesses(json, report.processes);
  json.endObject();
}

}  // namespace kelvane
