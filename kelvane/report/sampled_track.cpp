#include "kelvane/report/sampled_track.h"

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

struct TimeSpent {
  uint64_t onCpuNs = 0;
  uint64_t readyNs = 0;
  uint64_t waitedNs = 0;

  uint64_t sum() const { return onCpuNs + readyNs + waitedNs; }
};

void writeTimes(JsonWriter& json, const TimeSpent& spent) {
  json.memberMilliseconds("onCpuMs", spent.onCpuNs);
  json.memberMilliseconds("readyMs", spent.readyNs);
  json.memberMilliseconds("waitedMs", spent.waitedNs);
}

}  // namespace

SampledTrack::SampledTrack(const DumpRequest& request, const ProcessCapture& process, StackTree& tree)
    : process_(process), tree_(tree) {
  if (!request.hang) return;
  if (!process.threads.empty()) {
    const ThreadCapture& hung = process.threads.front();
    look_ = tree.add(hung.stack ? hung.stack->frames : std::vector<uint32_t>(), hung.facts.kernelStack);
  }
  hang_ = sampledHang(process, nsOfTicks(request.hang->start), nsOfTicks(request.hang->end));
  for (const SampledStack* sample : hang_.samples)
    stacks_.push_back(tree.add(sample->frames, sample->kernelFrames));
}

uint32_t SampledTrack::stackOf(std::optional<size_t> sample) const {
  return sample ? stacks_[*sample] : 0;
}

uint32_t SampledTrack::waitedIn(const Stretch& stretch) const {
  return hang_.time.neverRan ? look_ : stackOf(stretch.waitedIn);
}

void SampledTrack::writeTable(JsonWriter& json) const {
  if (isEmpty()) return;
  std::map<uint32_t, TimeSpent> byStack;
  for (const Stretch& stretch : hang_.time.stretches) {
    byStack[stackOf(stretch.ranIn)].onCpuNs += stretch.onCpuNs;
    byStack[stackOf(stretch.preemptedIn)].readyNs += stretch.preemptedNs;
    TimeSpent& waited = byStack[waitedIn(stretch)];
    waited.readyNs += stretch.wokenNs;
    waited.waitedNs += stretch.waitedNs;
  }
  const TimeSpent notSeen = byStack[0];
  byStack.erase(0);
  std::vector<std::pair<uint32_t, TimeSpent>> places(byStack.begin(), byStack.end());
  std::erase_if(places, [](const auto& place) { return place.second.sum() == 0; });
  std::sort(places.begin(), places.end(), [](const auto& a, const auto& b) {
    return std::pair(b.second.sum(), a.first) < std::pair(a.second.sum(), b.first);
  });
  if (places.size() > kMaxPlacesListed) places.resize(kMaxPlacesListed);

  json.key("sampled");
  json.beginObject();
  json.memberMicroseconds("ts", hang_.time.stretches.front().fromNs);
  json.memberMilliseconds("durationMs",
                          hang_.time.stretches.back().toNs - hang_.time.stretches.front().fromNs);
  json.member("samples", process_.samples.size());
  json.key("places");
  json.beginArray();
  for (const auto& [stack, spent] : places) {
    json.beginObject();
    json.member("sf", std::string_view(std::to_string(stack)));
    writeTimes(json, spent);
    json.endObject();
  }
  json.endArray();
  json.key("notSeen");
  json.beginObject();
  writeTimes(json, notSeen);
  json.endObject();
  json.endObject();
}

/// In a stretch what kept the thread off the CPU comes first, then what it did when it had gone on, up to the
/// next sample.
std::vector<SampledTrack::Segment> SampledTrack::segments() const {
  std::vector<Segment> segments;
  for (const Stretch& stretch : hang_.time.stretches) {
    const uint64_t waitedTo = stretch.fromNs + stretch.waitedNs + stretch.wokenNs;
    const uint64_t wentOnNs = stretch.toNs - stretch.onCpuNs;
    const auto add = [&](uint64_t fromNs, uint64_t toNs, uint32_t stack) {
      if (toNs > fromNs) segments.push_back({fromNs, toNs, stack});
    };
    add(stretch.fromNs, waitedTo, waitedIn(stretch));
    add(waitedTo, wentOnNs, stackOf(stretch.preemptedIn));
    add(wentOnNs, stretch.toNs, stackOf(stretch.ranIn));
  }
  return segments;
}

/// Leaves the event open for more members.
void SampledTrack::beginEvent(JsonWriter& json, const char* phase, const std::string& name,
                              const char* category, uint64_t startNs) const {
  json.beginObject();
  json.member("ph", phase);
  json.member("name", std::string_view(name));
  json.member("cat", category);
  json.member("pid", process_.pid);
  json.member("tid", process_.hungThread);
  json.memberMicroseconds("ts", startNs);
}

/// Neighbours are drawn as one as far as their stacks are the same.
void SampledTrack::writeEvents(JsonWriter& json) const {
  std::vector<Segment> drawn;  // one for each frame, so that whoever holds another one comes before it
  std::vector<size_t> open;    // those that the last one drawn is held by, and itself, outermost first
  for (const Segment& segment : segments()) {
    const std::vector<uint32_t> path = tree_.pathTo(segment.stack);
    size_t same = 0;
    while (same < open.size() && same < path.size() && drawn[open[same]].stack == path[same]) same++;
    open.resize(same);
    for (const size_t index : open) drawn[index].endNs = segment.endNs;
    for (; same < path.size(); same++) {
      open.push_back(drawn.size());
      drawn.push_back({segment.startNs, segment.endNs, path[same]});
    }
  }
  for (const Segment& frame : drawn) {
    beginEvent(json, "X", tree_.nameOf(frame.stack), tree_.kindOf(frame.stack), frame.startNs);
    json.memberMicroseconds("dur", frame.endNs - frame.startNs);
    json.endObject();
  }
  for (size_t i = 0; i < stacks_.size() && !isEmpty(); i++) {
    if (stacks_[i] == 0) continue;
    beginEvent(json, "P", "stack", "sample", hang_.samples[i]->times.atNs);
    json.member("sf", std::string_view(std::to_string(stacks_[i])));
    json.endObject();
  }
}

}  // namespace kelvane
