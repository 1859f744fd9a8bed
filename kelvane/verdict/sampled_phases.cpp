#include "kelvane/verdict/sampled_phases.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "kelvane/verdict/display_names.h"
#include "kelvane/verdict/shares.h"

namespace kelvane {
namespace {

/// A function is named if it took this share of a state's time; and as all of it from this share on.
constexpr double kPlaceShare = 0.8;
constexpr double kAlmostAllShare = 0.95;

/// A time that the thread spent in a state; null: in what, was not seen.
struct Visit {
  ThreadState state = ThreadState::unknown;
  uint64_t ns = 0;
  const SampledStack* stack = nullptr;
};

KernelWait kernelWaitOf(const std::vector<std::string>& functions) {
  ThreadFacts facts;
  if (!functions.empty()) facts.waitChannel = functions.front();
  facts.kernelStack = functions;
  return kernelWait(facts);
}

/// With its template arguments, which tell one wait from another.
std::string innermost(const ProcessCapture& process, const std::vector<const Frame*>& ownFrames) {
  return ownFrames.empty() ? std::string() : frameName(process, *ownFrames.front());
}

std::string innermost(const ProcessCapture& process, const SampledStack& stack) {
  return innermost(process, ownFrames(process, stack.frames));
}

std::string inKernel(const SampledStack& stack) {
  return stack.kernelFrames.empty() ? std::string() : stack.kernelFrames.front();
}

/// Divides the waits into those that the look still saw and others.
class Waits {
 public:
  Waits(const ProcessCapture& process, const SampledHang& hang) : process_(process) {
    const ThreadFacts& facts = process.threads.front().facts;
    look_ = stateOfLetter(facts.state);
    if (hang.time.neverRan) isLook_ = true;
    const auto& last = hang.time.stretches.back();
    const bool isAsleep = look_ != ThreadState::runnable && look_ != ThreadState::unknown;
    if (!isAsleep || !last.waitedIn || last.waitedNs < last.onCpuNs) return;
    const SampledStack& stack = *hang.samples[*last.waitedIn];
    const std::string function = innermost(process, ownFrames(process, process.threads.front()));
    if (function.empty() || function != innermost(process, stack)) return;
    // The wait channel is the innermost function that the scheduler's own section doesn't have, not always
    // the first of these.
    const auto& functions = stack.kernelFrames;
    const bool isThere = std::find(functions.begin(), functions.end(), facts.waitChannel) != functions.end();
    if (functions.empty() || facts.waitChannel.empty() || isThere) lookStack_ = &stack;
  }

  /// `stack`: null if it was not seen.
  bool isLikeTheLook(const SampledStack* stack) const {
    if (isLook_) return true;
    return stack && lookStack_ && inKernel(*stack) == inKernel(*lookStack_) &&
           innermost(process_, *stack) == innermost(process_, *lookStack_);
  }

  ThreadState stateOf(const SampledStack* stack) const {
    if (isLikeTheLook(stack)) return look_;
    if (!stack || stack->kernelFrames.empty()) return ThreadState::unknown;
    const auto isStop = [](const std::string& function) {
      return function == "do_signal_stop" || function == "ptrace_stop";
    };
    if (std::any_of(stack->kernelFrames.begin(), stack->kernelFrames.end(), isStop))
      return ThreadState::stopped;
    const KernelWait wait = kernelWaitOf(stack->kernelFrames);
    const bool isDeep = wait != KernelWait::unknown && wait != KernelWait::frozen;
    return isDeep ? ThreadState::uninterruptible : ThreadState::sleeping;
  }

 private:
  const ProcessCapture& process_;
  ThreadState look_ = ThreadState::unknown;
  bool isLook_ = false;                      // it was in what the look found all the while
  const SampledStack* lookStack_ = nullptr;  // of the wait that still went on at the look
};

std::vector<Visit> visitsOf(const SampledHang& hang, const Waits& waits) {
  const auto stackOf = [&](std::optional<size_t> sample) { return sample ? hang.samples[*sample] : nullptr; };
  std::vector<Visit> visits;
  for (const Stretch& stretch : hang.time.stretches) {
    const SampledStack* waited = stackOf(stretch.waitedIn);
    visits.push_back({ThreadState::running, stretch.onCpuNs, stackOf(stretch.ranIn)});
    visits.push_back({ThreadState::runnable, stretch.preemptedNs, stackOf(stretch.preemptedIn)});
    visits.push_back({ThreadState::runnable, stretch.wokenNs, waited});
    visits.push_back({waits.stateOf(waited), stretch.waitedNs, waited});
  }
  return visits;
}

/// Goes down from the outermost function for as long as one callee has most of the time.
void nameFunction(const ProcessCapture& process, const std::vector<Visit>& visits, uint64_t wholeNs,
                  SampledPhases::Place& place) {
  std::vector<std::pair<std::vector<const Frame*>, uint64_t>> paths;  // innermost first: what is left to go
  for (const Visit& visit : visits) {
    if (visit.stack) paths.emplace_back(ownFrames(process, visit.stack->frames), visit.ns);
  }
  for (;;) {
    std::map<const Frame*, uint64_t> callees;
    for (const auto& [path, ns] : paths) {
      if (!path.empty()) callees[path.back()] += ns;
    }
    const auto most = std::max_element(callees.begin(), callees.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    if (most == callees.end() || !makesUp(most->second, kPlaceShare, wholeNs)) return;
    place.function = functionName(process, *most->first);
    place.isAlmostAll = makesUp(most->second, kAlmostAllShare, wholeNs);
    std::erase_if(paths,
                  [&](const auto& each) { return each.first.empty() || each.first.back() != most->first; });
    for (auto& [path, ns] : paths) path.pop_back();
  }
}

void nameKernelFunction(const std::vector<Visit>& visits, uint64_t wholeNs, SampledPhases::Place& place) {
  std::map<std::string, uint64_t> functions;
  for (const Visit& visit : visits) {
    if (!visit.stack || visit.stack->kernelFrames.empty()) continue;
    uint64_t& ns = functions[inKernel(*visit.stack)] += visit.ns;
    if (!makesUp(ns, kPlaceShare, wholeNs)) continue;
    place.kernelFunction = inKernel(*visit.stack);
    place.kernelWait = kernelWaitOf(visit.stack->kernelFrames);
  }
}

/// Of a thread that has never run while it was sampled.
SampledPhases::Place placeAtLook(const ProcessCapture& process) {
  const ThreadFacts& facts = process.threads.front().facts;
  return {functionOf(process, process.hungThread), true, facts.waitChannel, kernelWait(facts)};
}

}  // namespace

SampledHang sampledHang(const ProcessCapture& process, uint64_t fromNs, uint64_t toNs) {
  SampledHang hang;
  for (const SampledStack& sample : process.samples) hang.samples.push_back(&sample);
  std::sort(hang.samples.begin(), hang.samples.end(), [](const auto* a, const auto* b) {
    return std::pair(a->times.atNs, a->times.switches) < std::pair(b->times.atNs, b->times.switches);
  });
  std::vector<SampleTimes> times;
  times.reserve(hang.samples.size());
  for (const SampledStack* sample : hang.samples) times.push_back(sample->times);
  hang.time = divideTime(times, process.clockMarks, fromNs, toNs);
  return hang;
}

SampledPhases sampledPhases(const ProcessCapture& process, uint64_t fromNs, uint64_t toNs) {
  SampledPhases phases;
  const SampledHang hang = sampledHang(process, fromNs, toNs);
  if (process.threads.empty() || hang.time.stretches.empty()) return phases;
  phases.durationNs = hang.time.stretches.back().toNs - hang.time.stretches.front().fromNs;
  const Waits waits(process, hang);
  std::array<std::vector<Visit>, TimeByState().size()> byState;
  for (const Visit& visit : visitsOf(hang, waits)) {
    const auto state = static_cast<size_t>(visit.state);
    phases.spent[state] += visit.ns;
    if (visit.state != ThreadState::unknown) phases.knownNs += visit.ns;
    const bool isWait = visit.state > ThreadState::runnable && visit.state != ThreadState::unknown;
    if (isWait && waits.isLikeTheLook(visit.stack)) phases.likeTheLookNs += visit.ns;
    if (visit.ns > 0) byState[state].push_back(visit);
  }
  for (size_t state = 0; state < byState.size(); state++) {
    SampledPhases::Place& place = phases.places[state];
    if (hang.time.neverRan) {
      place = placeAtLook(process);
      continue;
    }
    nameFunction(process, byState[state], phases.spent[state], place);
    nameKernelFunction(byState[state], phases.spent[state], place);
  }
  return phases;
}

}  // namespace kelvane
