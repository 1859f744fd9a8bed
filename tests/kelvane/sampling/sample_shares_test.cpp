#include "kelvane/sampling/sample_shares.h"

#include <gtest/gtest.h>

#include <map>

namespace kelvane {
namespace {

constexpr uint64_t kMillisecond = 1'000'000;
constexpr int kNotSeen = -1;

SampleTimes onCpu(uint64_t atMs, uint64_t cpuMs, uint64_t switches) {
  return {atMs * kMillisecond, cpuMs * kMillisecond, switches};
}
SampleTimes leaving(uint64_t atMs, uint64_t cpuMs, uint64_t switches) {
  return {atMs * kMillisecond, cpuMs * kMillisecond, switches, true};
}
/// At a sample of a leave: preempted, after having been so for `beforeMs`.
SampleTimes preempted(SampleTimes leave, uint64_t beforeMs, uint64_t awayMs) {
  leave.preemptedNs = beforeMs * kMillisecond;
  leave.awayNs = awayMs * kMillisecond;
  leave.wasPreempted = true;
  return leave;
}
ClockMark mark(uint64_t atMs, uint64_t cpuMs, uint64_t switches, uint64_t readyMs = 0) {
  return {atMs * kMillisecond, cpuMs * kMillisecond, switches, 0, readyMs * kMillisecond};
}

struct Spent {
  uint64_t onCpuMs = 0;
  uint64_t readyMs = 0;
  uint64_t waitedMs = 0;
  bool operator==(const Spent&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Spent& spent) {
  return out << spent.onCpuMs << ' ' << spent.readyMs << ' ' << spent.waitedMs;
}

/// What each sample stands for.
std::map<int, Spent> spentIn(const SampledTime& time) {
  std::map<int, Spent> spent;
  const auto index = [](std::optional<size_t> sample) {
    return sample ? static_cast<int>(*sample) : kNotSeen;
  };
  for (const Stretch& stretch : time.stretches) {
    if (stretch.onCpuNs > 0) spent[index(stretch.ranIn)].onCpuMs += stretch.onCpuNs / kMillisecond;
    if (stretch.preemptedNs > 0)
      spent[index(stretch.preemptedIn)].readyMs += stretch.preemptedNs / kMillisecond;
    if (stretch.wokenNs + stretch.waitedNs == 0) continue;
    spent[index(stretch.waitedIn)].readyMs += stretch.wokenNs / kMillisecond;
    spent[index(stretch.waitedIn)].waitedMs += stretch.waitedNs / kMillisecond;
  }
  return spent;
}

TEST(SampleShares, AHangThatComputesAndThenWaitsIsBoth) {
  // Asleep at first, in what nobody saw; then it computes, waits for long, and computes once more.
  const std::vector<SampleTimes> samples = {onCpu(520, 20, 0), onCpu(540, 40, 0), leaving(550, 50, 1),
                                            onCpu(2560, 60, 1), leaving(2570, 70, 2)};
  const std::vector<ClockMark> marks = {mark(0, 0, 0), mark(1000, 50, 1), mark(3000, 70, 2)};
  EXPECT_EQ(spentIn(divideTime(samples, marks, 0, 3000 * kMillisecond)),
            (std::map<int, Spent>{{kNotSeen, {0, 0, 500}},
                                  {0, {20, 0, 0}},
                                  {1, {30, 0, 0}},
                                  {2, {0, 0, 2000}},
                                  {3, {20, 0, 0}},
                                  {4, {0, 0, 430}}}));
  const SampledTime part = divideTime(samples, marks, 1550 * kMillisecond, 2100 * kMillisecond);
  EXPECT_EQ(part.stretches.front().fromNs, 1550 * kMillisecond);
  EXPECT_EQ(part.stretches.back().toNs, 2100 * kMillisecond);
  EXPECT_EQ(part.stretches.back().waitedIn, 2u) << "a wait that began before the hang goes on in it";
  EXPECT_TRUE(divideTime(samples, marks, 4000 * kMillisecond, 5000 * kMillisecond).stretches.empty());
  EXPECT_TRUE(divideTime(samples, {}, 0, 3000 * kMillisecond).stretches.empty());
}

TEST(SampleShares, WhoNeverRanWasWhereTheLookFindsIt) {
  const std::vector<ClockMark> marks = {mark(0, 0, 0), mark(4000, 0, 0)};
  EXPECT_TRUE(divideTime({}, marks, 0, 4000 * kMillisecond).neverRan);
  const std::vector<ClockMark> ran = {mark(0, 0, 0), mark(4000, 1, 1)};
  EXPECT_FALSE(divideTime({}, ran, 0, 4000 * kMillisecond).neverRan);
}

TEST(SampleShares, LeavesThatWereNotSeenExplainShortWaitsOnly) {
  // Between the first two it left 9 times more, between the others once more.
  const std::vector<SampleTimes> samples = {leaving(10, 5, 1), leaving(80, 15, 10), leaving(2000, 25, 12)};
  const std::vector<ClockMark> marks = {mark(0, 0, 0), mark(2000, 25, 12)};
  auto spent = spentIn(divideTime(samples, marks, 0, 2000 * kMillisecond));
  EXPECT_EQ(spent[0].waitedMs, 60u);
  EXPECT_EQ(spent[1].waitedMs, 0u);
  EXPECT_EQ(spent[kNotSeen].waitedMs, 1915u);
  // Where the wait's own length is known, only the rest has to be explained.
  std::vector<SampleTimes> thinned = samples;
  thinned[1].awayNs = 1900 * kMillisecond;
  EXPECT_EQ(spentIn(divideTime(thinned, marks, 0, 2000 * kMillisecond))[1].waitedMs, 1910u);
}

TEST(SampleShares, WhoWasPreemptedWasReadyWhereItRanWhateverElseItWaitedFor) {
  // 100 ms preempted, then 300 in a wait, at the end of which it was given no CPU for 50.
  std::vector<SampleTimes> samples = {preempted(leaving(100, 100, 1), 0, 100), leaving(300, 200, 2)};
  std::vector<ClockMark> marks = {mark(0, 0, 0, 7), mark(600, 200, 2, 157)};
  samples[1].preemptedNs = marks[1].preemptedNs = 100 * kMillisecond;
  EXPECT_EQ(spentIn(divideTime(samples, marks, 0, 600 * kMillisecond)),
            (std::map<int, Spent>{{0, {100, 100, 0}}, {1, {100, 50, 250}}}));
  // 3 ms preempted; then a sleep of 43 ms, whose sample was let go, and 10 ms preempted in what it then ran.
  samples = {preempted(leaving(100, 100, 1), 0, 3), onCpu(186, 130, 3)};
  marks = {mark(0, 0, 0), mark(196, 140, 3, 13)};
  samples[1].preemptedNs = marks[1].preemptedNs = 13 * kMillisecond;
  EXPECT_EQ(spentIn(divideTime(samples, marks, 0, 196 * kMillisecond)),
            (std::map<int, Spent>{{kNotSeen, {0, 0, 43}}, {0, {100, 0, 0}}, {1, {40, 13, 0}}}));
}

TEST(SampleShares, EachWakeTakesItsShareOfTheTimeInTheQueueAndNotEachSecondOfSleep) {
  // Four sleeps, of which one is long; it was given no CPU for 100 ms in all after them.
  const std::vector<SampleTimes> samples = {leaving(10, 10, 1), leaving(60, 20, 2), leaving(110, 30, 3),
                                            leaving(160, 40, 4)};
  const std::vector<ClockMark> marks = {mark(0, 0, 0), mark(2160, 40, 4, 100)};
  const auto spent = spentIn(divideTime(samples, marks, 0, 2160 * kMillisecond));
  EXPECT_EQ(spent.at(0), (Spent{10, 25, 15}));
  EXPECT_EQ(spent.at(3), (Spent{10, 25, 1975}));
}

/// Whoever unwinds foreign stacks may say anything of their times.
TEST(SampleShares, LiesAboutTimesEndWithTheTimeThereIs) {
  constexpr uint64_t kMax = UINT64_MAX;
  const std::vector<SampleTimes> samples = {{kMax, kMax, kMax, true, kMax, kMax, true},
                                            {5, kMax, 0, true, 0, kMax, false},
                                            {6, 0, kMax, false, kMax, kMax, true},
                                            {4, 1, 1, true, 1, 1, true},
                                            {900, kMax, kMax, true, kMax, kMax, true}};
  for (const auto& marks :
       {std::vector<ClockMark>{{0, kMax, 0, kMax, kMax}, {3, 0, kMax, 0, 0}, {1000, 7, 7, kMax, kMax}},
        std::vector<ClockMark>{{1000, 0, 0, 0, 0}, {0, kMax, kMax, kMax, kMax}},
        std::vector<ClockMark>{{0, 0, 0, 0, 0}, {kMax, kMax, kMax, kMax, kMax}}}) {
    uint64_t sumNs = 0;
    for (const Stretch& stretch : divideTime(samples, marks, 0, 1000).stretches)
      sumNs += stretch.onCpuNs + stretch.preemptedNs + stretch.waitedNs + stretch.wokenNs;
    EXPECT_LE(sumNs, 1000u);
  }
}

}  // namespace
}  // namespace kelvane
