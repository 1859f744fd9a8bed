#include "platform/linux/processes/process_table_records.h"

#include <gtest/gtest.h>

#include <numeric>

namespace quorveld::linux_platform {
namespace {

process_sample sampleOf(int32_t pid, uint64_t runtimeNs, uint64_t utimeNs = 1, uint64_t stimeNs = 0) {
  process_sample sample{};
  sample.pid = pid;
  sample.flags = kSampleHasLeader;
  sample.leader_class = kQosLegacy;
  sample.start_ns = 7;
  sample.runtime_ns = runtimeNs;
  sample.utime_ns = utimeNs;
  sample.stime_ns = stimeNs;
  sample.class_runtime_ns[kQosLegacy] = runtimeNs;
  return sample;
}

ProcessRecords recordsOf(std::span<const process_sample> samples, const ProcessRecords& before) {
  ProcessRecords records;
  makeRecords(records, samples, before);
  return records;
}

ProcessRecord after(const ProcessRecord* before, const process_sample& sample) {
  return recordsOf(std::span(&sample, 1), before ? ProcessRecords{*before} : ProcessRecords{}).at(0);
}

uint64_t startOf(const process_sample& sample) {
  platform::rusage_info_v3 usage{};
  setUsage(usage, after(nullptr, sample), 4096);
  return usage.proc_start_abstime;
}

uint64_t sumOf(const ProcessRecord& record) {
  return std::accumulate(record.classNs.begin(), record.classNs.end(), uint64_t{0});
}

TEST(ProcessRecords, TimesAreScaledAsTheKernelDoes) {
  // Precise run time, split as the tick's samples were: 3 to 1.
  ProcessRecord record = after(nullptr, sampleOf(1, 1000, 60, 20));
  EXPECT_EQ(record.userNs, 750u);
  EXPECT_EQ(record.systemNs, 250u);
  // Only system samples, only user samples, none.
  EXPECT_EQ(after(nullptr, sampleOf(1, 1000, 0, 5)).systemNs, 1000u);
  EXPECT_EQ(after(nullptr, sampleOf(1, 1000, 5, 0)).userNs, 1000u);
  EXPECT_EQ(after(nullptr, sampleOf(1, 1000, 0, 0)).userNs, 1000u);
  // Centuries of CPU time overflow nothing.
  const uint64_t ages = uint64_t{1} << 62;
  EXPECT_EQ(after(nullptr, sampleOf(1, ages, ages / 2, ages / 2)).systemNs, ages / 2);

  // What the kernel answered last is a floor, and stands as long as it covers the run time.
  process_sample told = sampleOf(1, 1000, 60, 20);
  told.prev_stime_ns = 400;
  EXPECT_EQ(after(nullptr, told).systemNs, 400u);
  told.prev_stime_ns = 0, told.prev_utime_ns = 900;
  EXPECT_EQ(after(nullptr, told).systemNs, 100u);
  told.prev_stime_ns = 200;
  EXPECT_EQ(after(nullptr, told).userNs + after(nullptr, told).systemNs, 1100u);

  // The estimate shifts towards user time; what was said of the system before stays.
  const ProcessRecord next = after(&record, sampleOf(1, 1010, 100, 0));
  EXPECT_EQ(next.systemNs, 250u);
  EXPECT_EQ(next.userNs, 760u);
}

TEST(ProcessRecords, WhoIsOlderThanTheClockStartedAtItsBeginning) {
  process_sample sample = sampleOf(1, 1000);
  sample.start_ns = 1'000'000'000;
  EXPECT_EQ(startOf(sample), 24'000'000u);
  sample.start_ns = uint64_t{0} - 1'000'000'000;
  EXPECT_EQ(startOf(sample), 0u);
}

TEST(ProcessRecords, NoCounterFallsWhenAThreadIsMissingForOnce) {
  process_sample full = sampleOf(1, 1000, 3, 1);
  full.major_faults = 5, full.read_bytes = 4096, full.write_bytes = 8192;
  const ProcessRecord before = after(nullptr, full);
  const ProcessRecord torn = after(&before, sampleOf(1, 10, 3, 1));
  EXPECT_EQ(torn.userNs + torn.systemNs, 1000u);
  EXPECT_EQ(torn.sample.major_faults, 5u);
  EXPECT_EQ(torn.sample.read_bytes, 4096u);
  EXPECT_EQ(torn.sample.write_bytes, 8192u);
  EXPECT_EQ(torn.classNs, before.classNs);
  full.runtime_ns = 1200;
  EXPECT_EQ(sumOf(after(&torn, full)), 1200u);
}

TEST(ProcessRecords, AnotherProcessUnderTheSamePidStartsAfresh) {
  const ProcessRecord before = after(nullptr, sampleOf(1, 1000));
  process_sample reused = sampleOf(1, 10);
  reused.start_ns = 8;
  EXPECT_EQ(after(&before, reused).userNs, 10u);
  EXPECT_EQ(sumOf(after(&before, reused)), 10u);
}

TEST(ProcessRecords, PartsOfAProcessAreAddedAndOrphanedPartsDropped) {
  process_sample part{};
  part.pid = 9;
  part.runtime_ns = 500, part.utime_ns = 1, part.read_bytes = 100;
  part.class_runtime_ns[kQosUtility] = 500;
  process_sample leader = sampleOf(9, 300);
  leader.comm[0] = 'n';
  process_sample orphan = part;
  orphan.pid = 4;
  const std::vector<process_sample> samples = {part, sampleOf(12, 1), leader, orphan, part, sampleOf(3, 1)};

  const ProcessRecords records = recordsOf(samples, {});
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].sample.pid, 3);
  EXPECT_EQ(records[1].sample.pid, 9);
  EXPECT_EQ(records[1].userNs, 1300u);
  EXPECT_EQ(records[1].sample.read_bytes, 200u);
  EXPECT_STREQ(records[1].sample.comm, "n");
  EXPECT_EQ(records[1].classNs[kQosUtility], 1000u);
  EXPECT_EQ(records[1].classNs[kQosLegacy], 300u);

  size_t cursor = 0;
  for (const int32_t pid : {12, 3, 9, 12}) EXPECT_EQ(findRecord(records, pid, cursor)->sample.pid, pid);
  for (const int32_t pid : {0, 4, 13, -1}) EXPECT_EQ(findRecord(records, pid, cursor), nullptr);
}

TEST(ProcessRecords, ClassesOnlyGrowAndSumUpToTheTimeSpent) {
  ProcessRecord record = after(nullptr, sampleOf(1, 1000));

  // A thread with a past of 600 becomes a background one; both it and the main thread spend 50.
  process_sample moved = sampleOf(1, 1100);
  moved.class_runtime_ns[kQosLegacy] = 450;
  moved.class_runtime_ns[kQosBackground] = 650;
  ProcessRecord next = after(&record, moved);
  EXPECT_EQ(next.classNs[kQosLegacy], 1000u);
  EXPECT_EQ(next.classNs[kQosBackground], 100u);
  // From then on each is told apart.
  moved.runtime_ns = 1170;
  moved.class_runtime_ns[kQosLegacy] = 470;
  moved.class_runtime_ns[kQosBackground] = 700;
  record = after(&next, moved);
  EXPECT_EQ(record.classNs[kQosLegacy], 1020u);
  EXPECT_EQ(record.classNs[kQosBackground], 150u);

  // The background thread ends, having spent 30 more: they are the main thread's.
  process_sample ended = sampleOf(1, 1210);
  ended.class_runtime_ns[kQosLegacy] = 480;
  next = after(&record, ended);
  EXPECT_EQ(next.classNs[kQosLegacy], 1060u);
  EXPECT_EQ(next.classNs[kQosBackground], 150u);

  // Threads that were not looked at keep their past.
  process_sample idle = sampleOf(1, 1210);
  idle.flags |= kSampleClassesUnknown;
  idle.class_runtime_ns[kQosLegacy] = 0;
  record = after(&next, idle);
  EXPECT_EQ(record.classNs, next.classNs);
  ended.runtime_ns = 1220, ended.class_runtime_ns[kQosLegacy] = 490;
  EXPECT_EQ(after(&record, ended).classNs[kQosLegacy], 1070u);
}

}  // namespace
}  // namespace quorveld::linux_platform
