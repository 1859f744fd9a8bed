#include "kelvane/sampling/sample_shares.h"

#include <algorithm>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

/// A sample, or the mark before the first or after the last.
struct Point {
  SampleTimes times;
  std::optional<size_t> sample;

  bool isOnCpu() const { return sample && !times.leftCpu; }
  bool isLeaving() const { return sample && times.leftCpu; }
};

/// `part` of `whole` of `amount`; no more than that, to which the largest amounts would be rounded up.
uint64_t portion(uint64_t amount, uint64_t part, uint64_t whole) {
  const double portion = static_cast<double>(amount) * static_cast<double>(part) / static_cast<double>(whole);
  return portion >= static_cast<double>(amount) ? amount : static_cast<uint64_t>(portion);
}

/// How much a clock went on that should not go back.
uint64_t since(uint64_t before, uint64_t after) {
  return after - std::min(before, after);
}

uint64_t leavesBetween(const Point& a, const Point& b) {
  return since(a.times.switches, b.times.switches);
}

/// How many times it may have begun to wait: the leave that a sample tells of begins what comes after it.
uint64_t waitsBegunBetween(const Point& a, const Point& b) {
  constexpr uint64_t kMost = uint64_t{1} << 32;
  const uint64_t notSeen = since(b.isLeaving() ? 1 : 0, leavesBetween(a, b));
  return std::min(notSeen, kMost) + (a.isLeaving() && !a.times.wasPreempted ? 1 : 0);
}

std::optional<size_t> whereItRan(const Point& a, const Point& b) {
  if (b.isOnCpu()) return b.sample;
  return a.isOnCpu() || !b.sample ? a.sample : b.sample;
}

/// Whether the thread left the CPU between both no more than the one time that a sample tells of.
bool isOneLeave(const Point& a, const Point& b) {
  return leavesBetween(a, b) <= (b.isLeaving() ? 1u : 0u);
}

/// Whether it stands for waits of `notSeenNs`, too.
bool standsForMore(const Point& leaving, uint64_t notSeenNs) {
  return !leaving.times.wasPreempted &&
         notSeenNs <= static_cast<uint64_t>(std::chrono::nanoseconds(kShortWait).count());
}

std::optional<size_t> whereItWaited(const Point& a, const Point& b, uint64_t waitedNs) {
  const uint64_t notSeenNs = waitedNs - std::min(waitedNs, a.times.awayNs);
  if (a.isLeaving() && (isOneLeave(a, b) || standsForMore(a, notSeenNs))) return a.sample;
  return b.isLeaving() && !isOneLeave(a, b) && standsForMore(b, waitedNs) ? b.sample : std::nullopt;
}

/// All time off the CPU that it was not preempted for counts as waited.
Stretch stretchBetween(const Point& a, const Point& b, uint64_t fromNs, uint64_t toNs) {
  Stretch stretch;
  stretch.fromNs = std::max(a.times.atNs, fromNs);
  stretch.toNs = std::min(b.times.atNs, toNs);
  const uint64_t wholeNs = b.times.atNs - a.times.atNs;
  const uint64_t lengthNs = stretch.toNs - stretch.fromNs;
  const uint64_t cpuNs = std::min(since(a.times.cpuNs, b.times.cpuNs), wholeNs);
  const uint64_t preemptedNs = std::min(since(a.times.preemptedNs, b.times.preemptedNs), wholeNs - cpuNs);
  stretch.onCpuNs = std::min(portion(cpuNs, lengthNs, wholeNs), lengthNs);
  stretch.preemptedNs = std::min(portion(preemptedNs, lengthNs, wholeNs), lengthNs - stretch.onCpuNs);
  // A thread that has not left the CPU was on it, whatever two clocks differ by.
  if (a.isOnCpu() && b.isOnCpu() && leavesBetween(a, b) == 0) {
    stretch.onCpuNs = lengthNs;
    stretch.preemptedNs = 0;
  }
  stretch.waitedNs = lengthNs - stretch.onCpuNs - stretch.preemptedNs;
  stretch.ranIn = whereItRan(a, b);
  stretch.preemptedIn = a.isLeaving() && isOneLeave(a, b) ? a.sample : stretch.ranIn;
  stretch.waitedIn = whereItWaited(a, b, stretch.waitedNs);
  return stretch;
}

/// For how long the thread was ready between `fromNs` and `toNs`.
uint64_t readyBetween(std::span<const ClockMark> marks, uint64_t fromNs, uint64_t toNs) {
  uint64_t readyNs = 0;
  for (size_t i = 0; i + 1 < marks.size(); i++) {
    const uint64_t startNs = std::max(marks[i].atNs, fromNs);
    const uint64_t endNs = std::min(marks[i + 1].atNs, toNs);
    const uint64_t sinceNs = since(marks[i].readyNs, marks[i + 1].readyNs);
    // The kernel counts it once it is over, so that more of it may be told of than there was time for.
    if (startNs < endNs)
      readyNs +=
          portion(std::min(sinceNs, toNs - fromNs), endNs - startNs, marks[i + 1].atNs - marks[i].atNs);
  }
  return readyNs;
}

/// Turns as much of what the thread waited into what it had been woken as the kernel has counted beyond what
/// it was preempted: the same for each time that it began to wait, as far as there was a wait, and what is
/// left then by how long each wait was.
void takeWokenTime(std::vector<Stretch>& stretches, std::span<const uint64_t> begun, uint64_t readyNs) {
  uint64_t allBegun = 0;
  for (size_t i = 0; i < stretches.size(); i++) {
    readyNs -= std::min(readyNs, stretches[i].preemptedNs);
    allBegun += stretches[i].waitedNs > 0 ? begun[i] : 0;
  }
  const auto take = [](Stretch& stretch, uint64_t ns) {
    const uint64_t takenNs = std::min(ns, stretch.waitedNs);
    stretch.wokenNs += takenNs;
    stretch.waitedNs -= takenNs;
    return takenNs;
  };
  uint64_t leftNs = readyNs;
  for (size_t i = 0; i < stretches.size() && allBegun > 0; i++)
    leftNs -= take(stretches[i], std::min(leftNs, portion(readyNs, begun[i], allBegun)));
  uint64_t waitedNs = 0;
  for (const Stretch& stretch : stretches) waitedNs += stretch.waitedNs;
  for (Stretch& stretch : stretches) {
    if (waitedNs > 0) take(stretch, portion(stretch.waitedNs, std::min(leftNs, waitedNs), waitedNs));
  }
}

}  // namespace

SampledTime divideTime(std::span<const SampleTimes> samples, std::span<const ClockMark> marks,
                       uint64_t fromNs, uint64_t toNs) {
  SampledTime time;
  if (marks.size() < 2) return time;
  const auto pointOf = [](const ClockMark& mark) {
    SampleTimes times{mark.atNs, mark.cpuNs, mark.switches};
    times.preemptedNs = mark.preemptedNs;
    return Point{times, std::nullopt};
  };
  std::vector<Point> points = {pointOf(marks.front())};
  for (size_t i = 0; i < samples.size(); i++) {
    // What the first mark has missed by a hair, or the last, tells nothing more than they do.
    if (samples[i].atNs > points.back().times.atNs && samples[i].atNs < marks.back().atNs)
      points.push_back({samples[i], i});
  }
  points.push_back(pointOf(marks.back()));
  time.neverRan = points.size() == 2 && marks.front().switches == marks.back().switches &&
                  marks.front().cpuNs == marks.back().cpuNs;
  std::vector<uint64_t> begun;  // of each stretch: waits
  for (size_t i = 0; i + 1 < points.size(); i++) {
    const Point& a = points[i];
    const Point& b = points[i + 1];
    if (b.times.atNs <= std::max(a.times.atNs, fromNs) || a.times.atNs >= toNs) continue;
    time.stretches.push_back(stretchBetween(a, b, fromNs, toNs));
    begun.push_back(waitsBegunBetween(a, b));
  }
  if (!time.stretches.empty()) {
    const uint64_t beganNs = time.stretches.front().fromNs;
    takeWokenTime(time.stretches, begun, readyBetween(marks, beganNs, time.stretches.back().toNs));
  }
  return time;
}

}  // namespace kelvane
