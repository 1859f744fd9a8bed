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

/// `part` of `whole` of `amount`.
uint64_t portion(uint64_t amount, uint64_t part, uint64_t whole) {
  return static_cast<uint64_t>(static_cast<double>(amount) * static_cast<double>(part) /
                               static_cast<double>(whole));
}

uint64_t leavesBetween(const Point& a, const Point& b) {
  return b.times.switches - std::min(a.times.switches, b.times.switches);
}

std::optional<size_t> whereItRan(const Point& a, const Point& b) {
  if (b.isOnCpu()) return b.sample;
  return a.isOnCpu() || !b.sample ? a.sample : b.sample;
}

/// Whether the thread waited where this sample left the CPU `notSeenNs` longer than the sample tells: who was
/// preempted was not about to wait.
bool standsForMore(const Point& leaving, uint64_t notSeenNs) {
  const uint64_t mostNs = static_cast<uint64_t>(std::chrono::nanoseconds(kShortWait).count());
  return notSeenNs <= (leaving.times.inCall ? mostNs : leaving.times.waitNs);
}

std::optional<size_t> whereItWaited(const Point& a, const Point& b, uint64_t offCpuNs) {
  const uint64_t atTheEnd = b.isLeaving() ? 1 : 0;
  const bool isOneWait = leavesBetween(a, b) <= atTheEnd;
  const uint64_t notSeenNs = offCpuNs - std::min(offCpuNs, a.times.waitNs);
  if (a.isLeaving()) return isOneWait || standsForMore(a, notSeenNs) ? a.sample : std::nullopt;
  return b.isLeaving() && !isOneWait && standsForMore(b, notSeenNs) ? b.sample : std::nullopt;
}

/// All time off the CPU counts as waited.
Stretch stretchBetween(const Point& a, const Point& b, uint64_t fromNs, uint64_t toNs) {
  Stretch stretch;
  stretch.fromNs = std::max(a.times.atNs, fromNs);
  stretch.toNs = std::min(b.times.atNs, toNs);
  const uint64_t wholeNs = b.times.atNs - a.times.atNs;
  const uint64_t lengthNs = stretch.toNs - stretch.fromNs;
  const uint64_t cpuNs = std::min(b.times.cpuNs - std::min(a.times.cpuNs, b.times.cpuNs), wholeNs);
  stretch.onCpuNs = std::min(portion(cpuNs, lengthNs, wholeNs), lengthNs);
  // A thread that has not left the CPU was on it, whatever two clocks differ by.
  if (a.isOnCpu() && b.isOnCpu() && leavesBetween(a, b) == 0) stretch.onCpuNs = lengthNs;
  stretch.waitedNs = lengthNs - stretch.onCpuNs;
  stretch.ranIn = whereItRan(a, b);
  stretch.waitedIn = whereItWaited(a, b, stretch.waitedNs);
  return stretch;
}

/// For how long the thread was ready between `fromNs` and `toNs`.
uint64_t readyBetween(std::span<const ClockMark> marks, uint64_t fromNs, uint64_t toNs) {
  uint64_t readyNs = 0;
  for (size_t i = 0; i + 1 < marks.size(); i++) {
    const uint64_t startNs = std::max(marks[i].atNs, fromNs);
    const uint64_t endNs = std::min(marks[i + 1].atNs, toNs);
    const uint64_t sinceNs = marks[i + 1].readyNs - std::min(marks[i].readyNs, marks[i + 1].readyNs);
    // The kernel counts it once it is over, so that more of it may be told of than there was time for.
    if (startNs < endNs)
      readyNs +=
          portion(std::min(sinceNs, toNs - fromNs), endNs - startNs, marks[i + 1].atNs - marks[i].atNs);
  }
  return readyNs;
}

/// Turns of what the thread waited as much into what it was ready as the kernel has counted: first what it
/// was off the CPU without having called the kernel, then what was not seen.
void takeReadyTime(std::vector<Stretch>& stretches, std::span<const SampleTimes> samples, uint64_t readyNs) {
  enum class Kind { preempted, notSeen, inCall };
  const auto kindOf = [&](const Stretch& stretch) {
    if (!stretch.waitedIn) return Kind::notSeen;
    return samples[*stretch.waitedIn].inCall ? Kind::inCall : Kind::preempted;
  };
  for (const Kind kind : {Kind::preempted, Kind::notSeen, Kind::inCall}) {
    const auto isMeant = [&](const Stretch& stretch) { return kindOf(stretch) == kind; };
    uint64_t sumNs = 0;
    for (const Stretch& stretch : stretches) sumNs += isMeant(stretch) ? stretch.waitedNs : 0;
    if (sumNs == 0) continue;
    const uint64_t takenNs = std::min(readyNs, sumNs);
    readyNs -= takenNs;
    for (Stretch& stretch : stretches) {
      if (!isMeant(stretch)) continue;
      stretch.readyNs = std::min(portion(stretch.waitedNs, takenNs, sumNs), stretch.waitedNs);
      stretch.waitedNs -= stretch.readyNs;
    }
  }
}

}  // namespace

SampledTime divideTime(std::span<const SampleTimes> samples, std::span<const ClockMark> marks,
                       uint64_t fromNs, uint64_t toNs) {
  SampledTime time;
  if (marks.size() < 2) return time;
  const auto pointOf = [](const ClockMark& mark) {
    return Point{{mark.atNs, mark.cpuNs, mark.switches, false}, std::nullopt};
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
  for (size_t i = 0; i + 1 < points.size(); i++) {
    const Point& a = points[i];
    const Point& b = points[i + 1];
    if (b.times.atNs <= std::max(a.times.atNs, fromNs) || a.times.atNs >= toNs) continue;
    time.stretches.push_back(stretchBetween(a, b, fromNs, toNs));
  }
  if (!time.stretches.empty()) {
    const uint64_t beganNs = time.stretches.front().fromNs;
    takeReadyTime(time.stretches, samples, readyBetween(marks, beganNs, time.stretches.back().toNs));
  }
  return time;
}

}  // namespace kelvane
