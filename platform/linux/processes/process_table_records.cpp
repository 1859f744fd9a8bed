#include "platform/linux/processes/process_table_records.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <tuple>

#include "platform/record_order.h"

namespace quorveld::linux_platform {

namespace {

using platform::SortKey;

/// Nanoseconds in ticks of the 24 MHz clock.
constexpr uint64_t ticks(uint64_t ns) {
  return ns * 3 / 125;
}

/// Indices into `samples` that put them in ascending order of pid.
std::vector<SortKey> orderByPid(std::span<const process_sample> samples) {
  std::vector<SortKey> keys(samples.size());
  for (uint32_t i = 0; i < keys.size(); ++i) keys[i] = {static_cast<uint32_t>(samples[i].pid), i};
  if (!std::ranges::is_sorted(keys, {}, &SortKey::key)) platform::sortByKey(keys);
  return keys;
}

/// Adds what `part` holds of the same process to `whole`. Only one of them has what the leader gives, so that
/// adding takes it over.
void addPart(process_sample& whole, const process_sample& part) {
  if (part.flags & kSampleHasLeader) {
    whole.leader_class = part.leader_class;
    whole.oom_score_adj = part.oom_score_adj;
    std::memcpy(whole.comm, part.comm, sizeof(whole.comm));
  }
  if (!(whole.flags & kSampleHasMemory)) {
    constexpr std::array kMemory = {&process_sample::resident_pages, &process_sample::footprint_pages,
                                    &process_sample::huge_pages,     &process_sample::locked_pages,
                                    &process_sample::memory,         &process_sample::program};
    for (auto figure : kMemory) whole.*figure = part.*figure;
  }
  whole.flags |= part.flags;
  constexpr std::array kSums = {
      &process_sample::start_ns,       &process_sample::runtime_ns,     &process_sample::utime_ns,
      &process_sample::stime_ns,       &process_sample::prev_utime_ns,  &process_sample::prev_stime_ns,
      &process_sample::child_utime_ns, &process_sample::child_stime_ns, &process_sample::child_major_faults,
      &process_sample::major_faults,   &process_sample::read_bytes,     &process_sample::write_bytes};
  for (auto sum : kSums) whole.*sum += part.*sum;
  for (int i = 0; i < kQosClassCount; ++i) whole.class_runtime_ns[i] += part.class_runtime_ns[i];
}

bool isOlder(const process_sample& one, const process_sample& other) {
  return std::tuple(static_cast<int64_t>(one.start_ns), one.pid) <
         std::tuple(static_cast<int64_t>(other.start_ns), other.pid);
}

/// Leaves the footprint of processes that run in one memory (clone(2) with CLONE_VM, vfork(2)) to the oldest
/// of them: ending another gives nothing back.
void countMemoryOnce(ProcessRecords& records) {
  constexpr uint32_t kNobody = UINT32_MAX;
  constexpr uint64_t kSpread = 0x9E3779B97F4A7C15;  // addresses differ in their middle bits
  const int bits = std::bit_width(records.size()) + 1;
  std::vector<uint32_t> owners(size_t{1} << bits, kNobody);  // a hash table, at most half full
  for (uint32_t i = 0; i < records.size(); ++i) {
    process_sample& sample = records[i].sample;
    if (sample.memory == 0) continue;
    size_t place = sample.memory * kSpread >> (64 - bits);
    while (owners[place] != kNobody && records[owners[place]].sample.memory != sample.memory)
      place = (place + 1) % owners.size();
    if (owners[place] == kNobody) {
      owners[place] = i;
      continue;
    }
    process_sample& other = records[owners[place]].sample;
    if (isOlder(sample, other)) owners[place] = i;
    process_sample& younger = isOlder(sample, other) ? other : sample;
    younger.footprint_pages = younger.huge_pages = 0;
  }
}

void keepFromFalling(process_sample& now, const process_sample& before) {
  constexpr std::array kCounters = {&process_sample::runtime_ns,     &process_sample::child_utime_ns,
                                    &process_sample::child_stime_ns, &process_sample::child_major_faults,
                                    &process_sample::major_faults,   &process_sample::read_bytes,
                                    &process_sample::write_bytes};
  for (auto counter : kCounters) now.*counter = std::max(now.*counter, before.*counter);
}

uint64_t scaled(uint64_t value, uint64_t numerator, uint64_t denominator) {
  return static_cast<uint64_t>(static_cast<unsigned __int128>(value) * numerator / denominator);
}

/// User and system time as the kernel's cputime_adjust makes them for proc(5): the precise run time, split as
/// the tick's samples are, neither part below what was answered before.
void setAdjustedTimes(ProcessRecord& record) {
  const process_sample& s = record.sample;
  record.userNs = s.prev_utime_ns;
  record.systemNs = s.prev_stime_ns;
  if (s.prev_utime_ns + s.prev_stime_ns >= s.runtime_ns) return;

  uint64_t system = 0;
  if (s.utime_ns == 0 && s.stime_ns != 0) {
    system = s.runtime_ns;
  } else if (s.stime_ns != 0) {
    system = std::min(scaled(s.stime_ns, s.runtime_ns, s.utime_ns + s.stime_ns), s.runtime_ns);
  }
  record.systemNs = std::max(system, s.prev_stime_ns);
  record.userNs = s.runtime_ns - record.systemNs;
  if (record.userNs < s.prev_utime_ns) {
    record.userNs = s.prev_utime_ns;
    record.systemNs = s.runtime_ns - record.userNs;
  }
}

/// Adds the CPU time that the process spent since `before` (null: since it began) to the classes.
///
/// What its live threads spent goes to the class that each holds now. Kept is one sum a class, not one a
/// thread: when a thread has changed class its whole past shows up in the new one, more than the process has
/// spent in all, and what it did spend is then split in proportion. What nobody alive accounts for was spent
/// by threads that have ended and goes to the main thread's class. So no class ever falls, and their sum is
/// the process's CPU time, always.
void addSpentByClass(ProcessRecord& record, const ProcessRecord* before) {
  process_sample& now = record.sample;
  if (before) record.classNs = before->classNs;
  const uint64_t total = record.userNs + record.systemNs;
  const uint64_t spent = total - std::accumulate(record.classNs.begin(), record.classNs.end(), uint64_t{0});

  if (now.flags & kSampleClassesUnknown) {
    if (before)
      std::memcpy(now.class_runtime_ns, before->sample.class_runtime_ns, sizeof(now.class_runtime_ns));
    record.classNs[now.leader_class] += spent;
    return;
  }
  if (spent == 0) return;
  std::array<uint64_t, kQosClassCount> grown{};
  uint64_t accounted = 0;
  for (int i = 0; i < kQosClassCount; ++i) {
    const uint64_t old = before ? before->sample.class_runtime_ns[i] : 0;
    grown[i] = now.class_runtime_ns[i] > old ? now.class_runtime_ns[i] - old : 0;
    accounted += grown[i];
  }
  uint64_t given = 0;
  for (int i = 0; i < kQosClassCount; ++i) {
    const uint64_t share = accounted <= spent ? grown[i] : scaled(grown[i], spent, accounted);
    record.classNs[i] += share;
    given += share;
  }
  record.classNs[now.leader_class] += spent - given;
}

}  // namespace

void makeRecords(ProcessRecords& records, std::span<const process_sample> samples,
                 const ProcessRecords& before) {
  constexpr size_t kHeadroomShare = 8;  // for those that are born until the place is used again
  const std::vector<SortKey> order = orderByPid(samples);
  records.clear();
  if (records.capacity() < samples.size()) records.reserve(samples.size() + samples.size() / kHeadroomShare);
  auto old = before.begin();
  for (size_t i = 0; i < order.size();) {
    ProcessRecord& record = records.emplace_back(samples[order[i].index]);
    process_sample& sample = record.sample;
    for (++i; i < order.size() && samples[order[i].index].pid == sample.pid; ++i)
      addPart(sample, samples[order[i].index]);
    if (!(sample.flags & kSampleHasLeader)) {
      records.pop_back();
      continue;
    }
    while (old != before.end() && old->sample.pid < sample.pid) ++old;
    const bool known =
        old != before.end() && old->sample.pid == sample.pid && old->sample.start_ns == sample.start_ns;
    if (known) {
      sample.prev_utime_ns = std::max(sample.prev_utime_ns, old->userNs);
      sample.prev_stime_ns = std::max(sample.prev_stime_ns, old->systemNs);
      keepFromFalling(sample, old->sample);
    }
    setAdjustedTimes(record);
    addSpentByClass(record, known ? &*old : nullptr);
  }
  countMemoryOnce(records);
}

const ProcessRecord* findRecord(const ProcessRecords& records, int32_t pid, size_t& cursor) {
  for (size_t i = cursor; i < records.size() && i <= cursor + 1; ++i) {
    if (records[i].sample.pid != pid) continue;
    cursor = i;
    return &records[i];
  }
  const auto found = std::lower_bound(records.begin(), records.end(), pid,
                                      [](const ProcessRecord& r, int32_t p) { return r.sample.pid < p; });
  if (found == records.end() || found->sample.pid != pid) return nullptr;
  cursor = static_cast<size_t>(found - records.begin());
  return &*found;
}

void setUsage(platform::rusage_info_v3& usage, const ProcessRecord& record, uint64_t pageSizeBytes) {
  static constexpr platform::rusage_info_v3 kNotCounted{};
  const process_sample& s = record.sample;
  platform::copyRecord(usage, kNotCounted);
  usage.user_time = ticks(record.userNs);
  usage.system_time = ticks(record.systemNs);
  usage.pageins = s.major_faults;
  usage.wired_size = s.locked_pages * pageSizeBytes;
  usage.resident_size = s.resident_pages * pageSizeBytes;
  usage.phys_footprint = s.footprint_pages * pageSizeBytes;
  // Who is older than a time namespace can be older than its clock.
  usage.proc_start_abstime = static_cast<int64_t>(s.start_ns) < 0 ? 0 : ticks(s.start_ns);
  usage.child_user_time = ticks(s.child_utime_ns);
  usage.child_system_time = ticks(s.child_stime_ns);
  usage.child_pageins = s.child_major_faults;
  usage.diskio_bytesread = s.read_bytes;
  usage.diskio_byteswritten = s.write_bytes;
  usage.cpu_time_qos_default = ticks(record.classNs[kQosDefault]);
  usage.cpu_time_qos_maintenance = ticks(record.classNs[kQosMaintenance]);
  usage.cpu_time_qos_background = ticks(record.classNs[kQosBackground]);
  usage.cpu_time_qos_utility = ticks(record.classNs[kQosUtility]);
  usage.cpu_time_qos_legacy = ticks(record.classNs[kQosLegacy]);
  usage.cpu_time_qos_user_initiated = ticks(record.classNs[kQosUserInitiated]);
  usage.cpu_time_qos_user_interactive = ticks(record.classNs[kQosUserInteractive]);
}

}  // namespace quorveld::linux_platform
