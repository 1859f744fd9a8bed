#include "kelvane/sampling/perf_records.h"

#include <gtest/gtest.h>
#include <linux/perf_event.h>

#include <bit>
#include <cstring>

#include "kelvane/base/limits.h"
#include "kelvane/sampling/sample_store.h"

namespace kelvane {
namespace {

constexpr uint64_t kSwitchId = 7;

RecordBytes recordOf(const std::vector<uint64_t>& words, uint32_t type = PERF_RECORD_SAMPLE,
                     uint16_t misc = 0) {
  RecordBytes record(sizeof(perf_event_header) + words.size() * sizeof(uint64_t));
  const perf_event_header header{type, misc, static_cast<uint16_t>(record.size())};
  std::memcpy(record.data(), &header, sizeof header);
  std::memcpy(record.data() + sizeof header, words.data(), words.size() * sizeof(uint64_t));
  return record;
}

/// The words of a sample whose registers are numbered in their order, with three words of stack.
std::vector<uint64_t> sampleWords(uint64_t atNs, uint64_t id = kSwitchId, uint64_t cpuNs = 50,
                                  uint64_t switches = 3) {
  std::vector<uint64_t> words = {id,
                                 atNs,
                                 2,
                                 cpuNs,
                                 switches,
                                 3,
                                 static_cast<uint64_t>(PERF_CONTEXT_KERNEL),
                                 0xF1,
                                 0xF2,
                                 PERF_SAMPLE_REGS_ABI_64};
  for (int i = 0; i < std::popcount(userRegistersMask()); i++) words.push_back(1000 + i);
  words.insert(words.end(), {24, 0xA, 0xB, 0xC, 16});
  return words;
}

TEST(PerfRecords, ASampleIsReadAndNoLieInItLeadsOutOfIt) {
  if (userRegistersMask() == 0) GTEST_SKIP() << "no registers are known on this machine";
  const std::vector<uint64_t> words = sampleWords(99);
  const ThreadSample sample = parseSample(recordOf(words), kSwitchId).value_or(ThreadSample{});
  EXPECT_EQ(sample.times, (SampleTimes{99, 50, 3, true}));
  EXPECT_EQ(sample.stack.bytes.size(), 16u) << "what is behind is nobody's";
  EXPECT_EQ(sample.stack.base, sample.stack.registers.sp);
  EXPECT_EQ(sample.kernelAddresses, (std::vector<uint64_t>{0xF1, 0xF2})) << "the marker is no place";
#if defined(__x86_64__)
  EXPECT_EQ(sample.stack.registers.sp, 1007u);
  EXPECT_EQ(sample.stack.registers.pc, 1008u);
  EXPECT_EQ(sample.stack.registers.dwarf[3], 1001u) << "rbx";
  EXPECT_EQ(sample.stack.registers.dwarf[15], 1016u) << "r15";
#endif
  const RecordBytes whole = recordOf(words);
  for (size_t length = 0; length < whole.size(); length++)
    EXPECT_FALSE(parseSample(std::span(whole).first(length), kSwitchId)) << length;
  const auto refused = [&](size_t fromEnd, uint64_t value) {
    std::vector<uint64_t> lie = words;
    lie[lie.size() - fromEnd] = value;
    return !parseSample(recordOf(lie), kSwitchId);
  };
  for (const uint64_t size : {uint64_t{25}, uint64_t{1} << 20, UINT64_MAX}) EXPECT_TRUE(refused(5, size));
  for (const uint64_t own : {uint64_t{25}, UINT64_MAX}) EXPECT_TRUE(refused(1, own));
  for (const uint64_t kind : {0, 1, 9})  // no registers, a 32-bit program's
    EXPECT_TRUE(refused(words.size() - 9, kind));
  EXPECT_TRUE(refused(words.size() - 5, UINT64_MAX)) << "that many kernel frames";
  EXPECT_TRUE(refused(words.size() - 2, 3)) << "three counters";
  EXPECT_FALSE(parseSample(recordOf(words, PERF_RECORD_LOST), kSwitchId));
  EXPECT_FALSE(sampleTimes(recordOf(words), kSwitchId + 1).value_or(SampleTimes{.leftCpu = true}).leftCpu);
}

/// Writes as the kernel does: each record below the last one, around the ring's end.
class Ring {
 public:
  void write(const RecordBytes& record) {
    head -= record.size();
    for (size_t i = 0; i < record.size(); i++) bytes[(head + i) % bytes.size()] = record[i];
  }
  uint64_t head = 0;
  std::vector<std::byte> bytes = std::vector<std::byte>(256);
};

TEST(PerfRecords, ARingIsReadBackwardsAsFarAsItIsWhole) {
  const auto numbered = [](uint64_t number) { return recordOf({number, 0, 0, 0, 0}); };  // 48 bytes
  const auto numbers = [](const std::vector<RecordBytes>& records) {
    std::vector<uint64_t> found;
    for (const RecordBytes& record : records)
      std::memcpy(&found.emplace_back(), record.data() + sizeof(perf_event_header), sizeof(uint64_t));
    return found;
  };
  Ring ring;
  EXPECT_TRUE(recordsSince(ring.bytes, 0, 0).empty());
  for (uint64_t i = 1; i <= 3; i++) ring.write(numbered(i));
  EXPECT_EQ(numbers(recordsSince(ring.bytes, ring.head, 0)), (std::vector<uint64_t>{1, 2, 3}));
  const uint64_t read = ring.head;
  for (uint64_t i = 4; i <= 6; i++) ring.write(numbered(i));
  EXPECT_EQ(numbers(recordsSince(ring.bytes, ring.head, read)), (std::vector<uint64_t>{4, 5, 6}));
  for (uint64_t i = 7; i <= 20; i++) ring.write(numbered(i));
  EXPECT_EQ(numbers(recordsSince(ring.bytes, ring.head, read)), (std::vector<uint64_t>{16, 17, 18, 19, 20}))
      << "five fit, and of the sixth a part is overwritten";
  for (const uint16_t size : {0, 4, 12, 0xFFF8}) {
    std::memcpy(ring.bytes.data() + ring.head % ring.bytes.size() + 6, &size, sizeof size);
    EXPECT_TRUE(recordsSince(ring.bytes, ring.head, read).empty()) << size;
  }
}

TEST(SampleStore, KeepsTheOneSampleOfALongWaitAndNotAllOfAComputation) {
  SampleStore store;
  uint64_t atNs = 0;
  uint64_t cpuNs = 0;
  uint64_t switches = 0;
  const auto compute = [&](int samples) {
    for (int i = 0; i < samples; i++) {
      atNs += 20;
      cpuNs += 20;
      store.add(recordOf({1, atNs, 2, cpuNs, switches}), kSwitchId);
    }
  };
  store.add(recordOf({1, 0}), kSwitchId);
  compute(300);
  const uint64_t leftAt = atNs + 1;
  store.add(recordOf({kSwitchId, leftAt, 2, cpuNs + 1, ++switches}), kSwitchId);
  atNs += 5000;
  compute(2000);
  store.add(recordOf({1, 1, 2, 0, 0}), kSwitchId);
  ASSERT_LE(store.kept().size(), kMaxKeptSamples);
  EXPECT_GE(store.kept().size(), kMaxKeptSamples / 4);
  const auto wait = std::find_if(store.kept().begin(), store.kept().end(),
                                 [&](const SampleStore::Kept& kept) { return kept.times.atNs == leftAt; });
  ASSERT_NE(wait, store.kept().end());
  for (size_t i = 1; i < store.kept().size(); i++)
    EXPECT_LT(store.kept()[i - 1].times.atNs, store.kept()[i].times.atNs);
}

TEST(SampleStore, SwitchesTellWhoWaitedFromWhoWasPreemptedAndForHowLong) {
  SampleStore store;
  const auto leaveSample = [&](uint64_t atNs) { store.add(recordOf({kSwitchId, atNs, 2, 0, 0}), kSwitchId); };
  const auto change = [&](uint64_t atNs, uint16_t misc) {
    store.add(recordOf({atNs, kSwitchId}, PERF_RECORD_SWITCH, misc), kSwitchId);
  };
  constexpr uint16_t kOut = PERF_RECORD_MISC_SWITCH_OUT;
  constexpr uint16_t kPreempted = kOut | PERF_RECORD_MISC_SWITCH_OUT_PREEMPT;
  change(5, 0);  // of a leave before the first record
  leaveSample(10);
  change(11, kPreempted);
  EXPECT_EQ(store.preemptedNs(15), 4u) << "it goes on";
  change(41, 0);
  change(50, kPreempted);  // one that is not sampled
  change(57, 0);
  leaveSample(60);
  change(61, kOut);
  EXPECT_EQ(store.preemptedNs(90), 37u);
  change(91, 0);
  RecordBytes cutOff = recordOf({95}, PERF_RECORD_SWITCH, kPreempted);
  cutOff.resize(cutOff.size() - 1);
  store.add(std::move(cutOff), kSwitchId);
  EXPECT_EQ(store.preemptedNs(99), 37u);
  ASSERT_EQ(store.kept().size(), 2u);
  const SampleTimes first = {10, 0, 0, true, 0, 30, true};
  const SampleTimes second = {60, 0, 0, true, 37, 30, false};
  EXPECT_EQ(store.kept()[0].times, first);
  EXPECT_EQ(store.kept()[1].times, second);
}

TEST(SampleStore, KnowsWhenAnotherProgramBeganAndWhenTheThreadEnded) {
  SampleStore store;
  const auto named = [&](uint64_t atNs, uint16_t misc) {
    // The process and the thread, the name, the time, the id.
    store.add(recordOf({0, 0x656d616e, 0, atNs, kSwitchId}, PERF_RECORD_COMM, misc), kSwitchId);
  };
  named(20, 0);
  EXPECT_EQ(store.executedNs(), 0u) << "it only gave itself a name";
  named(30, PERF_RECORD_MISC_COMM_EXEC);
  EXPECT_EQ(store.executedNs(), 30u);
  store.add(recordOf({1, 2, 90, 90, kSwitchId}, PERF_RECORD_FORK), kSwitchId);
  store.add(recordOf({7}, PERF_RECORD_EXIT), kSwitchId);
  EXPECT_EQ(store.endedNs(), 0u) << "a child of its own, and a record that is cut off";
  store.add(recordOf({1, 2, 40, 40, kSwitchId}, PERF_RECORD_EXIT), kSwitchId);
  EXPECT_EQ(store.endedNs(), 40u);
  EXPECT_TRUE(store.kept().empty());
}

}  // namespace
}  // namespace kelvane
