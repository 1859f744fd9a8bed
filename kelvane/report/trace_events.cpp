#include "kelvane/report/trace_events.h"

#include "kelvane/base/deadline.h"
#include "kelvane/verdict/display_names.h"

namespace kelvane {
namespace {

/// The track of a report that is about no process: above every process id that Linux hands out (at most
/// 2^22).
constexpr int64_t kNoProcessTrack = (1 << 22) + 1;

/// How wide a stack is drawn that has a moment but no duration.
constexpr uint64_t kMomentNs = 1'000'000;

/// What a thread was doing, as one line: its state and what it waits in.
std::string stateText(const ThreadFacts& facts) {
  std::string text = stateName(facts.state);
  return facts.waitChannel.empty() ? text : text + " in " + facts.waitChannel;
}

}  // namespace

TraceEvents::TraceEvents(const DumpRequest& request, const ProcessCapture& process, StackTree& tree,
                         const SampledTrack& sampled, uint64_t capturedAtNs)
    : request_(request), process_(process), tree_(tree), sampled_(sampled), capturedAtNs_(capturedAtNs) {
  pid_ = request.pid.value_or(kNoProcessTrack);
  hungThread_ = process.hungThread != 0 ? process.hungThread : pid_;
  for (const ThreadCapture& thread : process.threads) {
    stacks_.push_back(
        tree.add(thread.stack ? thread.stack->frames : std::vector<uint32_t>(), thread.facts.kernelStack));
  }
}

void TraceEvents::writeName(JsonWriter& json, const char* what, int64_t tid, const std::string& name) const {
  json.beginObject();
  json.member("ph", "M");
  json.member("name", what);
  json.member("pid", pid_);
  json.member("tid", tid);
  json.key("args");
  json.beginObject();
  json.member("name", std::string_view(name));
  json.endObject();
  json.endObject();
}

/// Leaves the event open for more members.
void TraceEvents::writeInterval(JsonWriter& json, int64_t tid, const std::string& name, const char* category,
                                uint64_t startNs, uint64_t durationNs) const {
  json.beginObject();
  json.member("ph", "X");
  json.member("name", std::string_view(name));
  json.member("cat", category);
  json.member("pid", pid_);
  json.member("tid", tid);
  json.memberMicroseconds("ts", startNs);
  json.memberMicroseconds("dur", durationNs);
}

void TraceEvents::writeHang(JsonWriter& json) const {
  if (!request_.hang) return;
  uint64_t start = nsOfTicks(request_.hang->start);
  std::string what = request_.serviceName.empty() ? "hang" : request_.serviceName;
  writeInterval(json, hungThread_, what, "hang", start, nsOfTicks(request_.hang->end) - start);
  json.key("args");
  json.beginObject();
  json.member("reason", std::string_view(request_.reason));
  json.endObject();
  json.endObject();
}

void TraceEvents::writeFrames(JsonWriter& json, uint32_t stack, int64_t tid, uint64_t startNs,
                              uint64_t durationNs) const {
  for (const uint32_t frame : tree_.pathTo(stack)) {
    writeInterval(json, tid, tree_.nameOf(frame), tree_.kindOf(frame), startNs, durationNs);
    json.endObject();
  }
}

void TraceEvents::writeThread(JsonWriter& json, size_t index) const {
  const ThreadCapture& thread = process_.threads[index];
  int64_t tid = thread.facts.tid;
  writeName(json, "thread_name", tid, thread.facts.comm);
  uint64_t atNs = thread.stack ? thread.stack->atNs : capturedAtNs_;
  uint64_t startNs = atNs;
  uint64_t durationNs = kMomentNs;
  if (tid == hungThread_ && request_.hang && sampled_.isEmpty()) {
    startNs = nsOfTicks(request_.hang->start);
    durationNs = nsOfTicks(request_.hang->end) - startNs;
  }
  writeInterval(json, tid, stateText(thread.facts), "state", startNs, durationNs);
  json.endObject();
  writeFrames(json, stacks_[index], tid, startNs, durationNs);
  if (stacks_[index] == 0) return;
  json.beginObject();
  json.member("ph", "P");
  json.member("name", "stack");
  json.member("cat", "stack");
  json.member("pid", pid_);
  json.member("tid", tid);
  json.memberMicroseconds("ts", atNs);
  json.member("sf", std::string_view(std::to_string(stacks_[index])));
  json.endObject();
}

void TraceEvents::writeEvents(JsonWriter& json) const {
  std::string name = fileName(request_.processPath);
  if (name.empty()) name = process_.comm;
  writeName(json, "process_name", hungThread_, name);
  writeHang(json);
  sampled_.writeEvents(json);  // before the look, which is later
  for (size_t i = 0; i < process_.threads.size(); i++) writeThread(json, i);
}

}  // namespace kelvane
