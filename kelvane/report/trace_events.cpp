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

uint32_t stackOf(const ThreadCapture& thread, StackTree& tree) {
  return tree.add(thread.stack ? thread.stack->frames : std::vector<uint32_t>(), thread.facts.kernelStack);
}

}  // namespace

TraceEvents::TraceEvents(const DumpRequest& request, const ProcessCapture& process, StackTree& tree,
                         const SampledTrack& sampled, uint64_t capturedAtNs)
    : request_(request), process_(process), tree_(tree), sampled_(sampled), capturedAtNs_(capturedAtNs) {
  pid_ = request.pid.value_or(process.hungThread != 0 ? process.pid : kNoProcessTrack);
  hungThread_ = process.hungThread != 0 ? process.hungThread : pid_;
  for (const ThreadCapture& thread : process.threads) stacks_.push_back(stackOf(thread, tree));
  for (const OtherThread& other : process.others) otherStacks_.push_back(stackOf(other.thread, tree));
}

void TraceEvents::writeName(JsonWriter& json, const char* what, Track track, const std::string& name) {
  json.beginObject();
  json.member("ph", "M");
  json.member("name", what);
  json.member("pid", track.pid);
  json.member("tid", track.tid);
  json.key("args");
  json.beginObject();
  json.member("name", std::string_view(name));
  json.endObject();
  json.endObject();
}

/// Leaves the event open for more members.
void TraceEvents::writeInterval(JsonWriter& json, Track track, const std::string& name, const char* category,
                                uint64_t startNs, uint64_t durationNs) {
  json.beginObject();
  json.member("ph", "X");
  json.member("name", std::string_view(name));
  json.member("cat", category);
  json.member("pid", track.pid);
  json.member("tid", track.tid);
  json.memberMicroseconds("ts", startNs);
  json.memberMicroseconds("dur", durationNs);
}

void TraceEvents::writeHang(JsonWriter& json) const {
  if (!request_.hang) return;
  uint64_t start = nsOfTicks(request_.hang->start);
  std::string what = request_.serviceName.empty() ? "hang" : request_.serviceName;
  writeInterval(json, {pid_, hungThread_}, what, "hang", start, nsOfTicks(request_.hang->end) - start);
  json.key("args");
  json.beginObject();
  json.member("reason", std::string_view(request_.reason));
  json.endObject();
  json.endObject();
}

void TraceEvents::writeFrames(JsonWriter& json, uint32_t stack, Track track, uint64_t startNs,
                              uint64_t durationNs) const {
  for (const uint32_t frame : tree_.pathTo(stack)) {
    writeInterval(json, track, tree_.nameOf(frame), tree_.kindOf(frame), startNs, durationNs);
    json.endObject();
  }
}

void TraceEvents::writeThread(JsonWriter& json, int64_t pid, const ThreadCapture& thread,
                              uint32_t stack) const {
  const Track track{pid, thread.facts.tid};
  writeName(json, "thread_name", track, thread.facts.comm);
  uint64_t atNs = thread.stack ? thread.stack->atNs : capturedAtNs_;
  uint64_t startNs = atNs;
  uint64_t durationNs = kMomentNs;
  if (track.tid == hungThread_ && request_.hang && sampled_.isEmpty()) {
    startNs = nsOfTicks(request_.hang->start);
    durationNs = nsOfTicks(request_.hang->end) - startNs;
  }
  writeInterval(json, track, stateText(thread.facts), "state", startNs, durationNs);
  json.endObject();
  writeFrames(json, stack, track, startNs, durationNs);
  if (stack == 0) return;
  json.beginObject();
  json.member("ph", "P");
  json.member("name", "stack");
  json.member("cat", "stack");
  json.member("pid", track.pid);
  json.member("tid", track.tid);
  json.memberMicroseconds("ts", atNs);
  json.member("sf", std::string_view(std::to_string(stack)));
  json.endObject();
}

void TraceEvents::writeEvents(JsonWriter& json) const {
  std::string name = fileName(request_.processPath);
  if (name.empty()) name = process_.comm;
  writeName(json, "process_name", {pid_, hungThread_}, name);
  // Of a launch there are samples alone.
  if (process_.threads.empty() && !sampled_.isEmpty())
    writeName(json, "thread_name", {pid_, hungThread_}, process_.comm);
  writeHang(json);
  sampled_.writeEvents(json);  // before the look, which is later
  for (size_t i = 0; i < process_.threads.size(); i++)
    writeThread(json, pid_, process_.threads[i], stacks_[i]);
  for (size_t i = 0; i < process_.others.size(); i++) {
    const OtherThread& other = process_.others[i];
    writeName(json, "process_name", {other.pid, other.pid}, other.process);
    writeThread(json, other.pid, other.thread, otherStacks_[i]);
  }
}

}  // namespace kelvane
