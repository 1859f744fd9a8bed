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

TraceEvents::TraceEvents(const DumpRequest& request, const ProcessCapture& process, uint64_t capturedAtNs)
    : request_(request), process_(process), capturedAtNs_(capturedAtNs) {
  pid_ = request.pid.value_or(kNoProcessTrack);
  hungThread_ = process.hungThread != 0 ? process.hungThread : pid_;
  for (const ThreadCapture& thread : process.threads) leaves_.push_back(addStack(thread));
}

uint32_t TraceEvents::addNode(Node node) {
  const void* content = node.frame ? static_cast<const void*>(node.frame) : node.kernelFrame;
  auto [known, isNew] = known_.try_emplace({node.parent, content}, static_cast<uint32_t>(nodes_.size() + 1));
  if (isNew) nodes_.push_back(node);
  return known->second;
}

uint32_t TraceEvents::addStack(const ThreadCapture& thread) {
  uint32_t leaf = 0;
  if (thread.stack) {
    const auto& frames = thread.stack->frames;
    for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame) {
      leaf = addNode({leaf, &process_.frames[*frame], nullptr});
    }
  }
  const auto& kernel = thread.facts.kernelStack;
  for (auto frame = kernel.rbegin(); frame != kernel.rend(); ++frame) {
    // Equal texts share one string, so that equal stacks share their nodes.
    leaf = addNode({leaf, nullptr, &kernelFrames_.try_emplace(*frame, 0).first->first});
  }
  return leaf;
}

std::string TraceEvents::nodeName(const Node& node) const {
  if (node.kernelFrame) return *node.kernelFrame;
  return frameName(process_, *node.frame);
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

void TraceEvents::writeNodes(JsonWriter& json, uint32_t leaf, int64_t tid, uint64_t startNs,
                             uint64_t durationNs) const {
  std::vector<const Node*> outermostFirst;
  for (uint32_t id = leaf; id != 0; id = nodes_[id - 1].parent) outermostFirst.push_back(&nodes_[id - 1]);
  for (auto node = outermostFirst.rbegin(); node != outermostFirst.rend(); ++node) {
    writeInterval(json, tid, nodeName(**node), (*node)->kernelFrame ? "kernel" : "user", startNs, durationNs);
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
  if (tid == hungThread_ && request_.hang) {
    startNs = nsOfTicks(request_.hang->start);
    durationNs = nsOfTicks(request_.hang->end) - startNs;
  }
  writeInterval(json, tid, stateText(thread.facts), "state", startNs, durationNs);
  json.endObject();
  writeNodes(json, leaves_[index], tid, startNs, durationNs);
  if (leaves_[index] == 0) return;
  json.beginObject();
  json.member("ph", "P");
  json.member("name", "stack");
  json.member("cat", "stack");
  json.member("pid", pid_);
  json.member("tid", tid);
  json.memberMicroseconds("ts", atNs);
  json.member("sf", std::string_view(std::to_string(leaves_[index])));
  json.endObject();
}

void TraceEvents::writeEvents(JsonWriter& json) const {
  std::string name = fileName(request_.processPath);
  if (name.empty()) name = process_.comm;
  writeName(json, "process_name", hungThread_, name);
  writeHang(json);
  for (size_t i = 0; i < process_.threads.size(); i++) writeThread(json, i);
}

void TraceEvents::writeStackFrames(JsonWriter& json) const {
  json.beginObject();
  for (size_t i = 0; i < nodes_.size(); i++) {
    const Node& node = nodes_[i];
    json.key(std::to_string(i + 1));
    json.beginObject();
    json.member("name", std::string_view(nodeName(node)));
    const Module* module = node.frame ? moduleOf(process_, *node.frame) : nullptr;
    json.member("category", std::string_view(node.kernelFrame ? "kernel"
                                             : module         ? fileName(module->path)
                                                              : ""));
    if (node.parent != 0) json.member("parent", std::string_view(std::to_string(node.parent)));
    if (node.frame) json.member("address", std::string_view(hexText(node.frame->address)));
    if (module) {
      json.member("module", std::string_view(module->path));
      json.member("offset", std::string_view(hexText(node.frame->offset)));
      if (!module->buildId.empty()) json.member("build_id", std::string_view(module->buildId));
    }
    json.endObject();
  }
  json.endObject();
}

}  // namespace kelvane
