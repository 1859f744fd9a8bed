#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/processes/process_table_sample.h"
#include "platform/process_table.h"
#include "platform/record_order.h"

namespace quorveld::linux_platform {

/// One process as of one look.
struct ProcessRecord {
  explicit ProcessRecord(const process_sample& from) { platform::copyRecord(sample, from); }

  process_sample sample;  ///< whole; no counter in it is below the one of the look before
  uint64_t userNs = 0;    ///< CPU times as proc(5) shows them
  uint64_t systemNs = 0;
  std::array<uint64_t, kQosClassCount> classNs{};  ///< their sum, split by class
};

/// Ascending by pid, each pid once.
using ProcessRecords = std::vector<ProcessRecord>;

/// Makes the records of a look from its samples and from the records of the look before, in the place of what
/// `records` held.
///
/// A process is the one of before when pid and start time agree. Its counters then never go back, though a
/// thread that ends in the middle of the pass can be missing from the samples, and though the split into user
/// and system time is an estimate that the kernel corrects. The CPU time spent since is added to the classes,
/// see addSpentByClass. A footprint that several processes have together is the oldest one's.
void makeRecords(ProcessRecords& records, std::span<const process_sample> samples,
                 const ProcessRecords& before);

/// The record of `pid`, null when there is none. Tries `cursor` and its successor first, and leaves it on
/// what was found, so that asking in ascending order costs nothing.
const ProcessRecord* findRecord(const ProcessRecords& records, int32_t pid, size_t& cursor);

/// Fills `usage` with the record in the units of platform/process_table.h.
void setUsage(platform::rusage_info_v3& usage, const ProcessRecord& record, uint64_t pageSizeBytes);

}  // namespace quorveld::linux_platform
