#include "perfstats/task_order.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/record_order.h"

namespace quorveld {

namespace {

using platform::SortKey;

bool standsAfter(const SortKey& a, const SortKey& b) {
  return static_cast<int32_t>(b.key - a.key) > 0;
}

/// Merges two neighbouring runs of `from` into `to`; of equal elements the left run's come first.
void mergeRuns(const SortKey* left, const SortKey* middle, const SortKey* end, SortKey* to) {
  const SortKey* right = middle;
  while (left < middle && right < end) {
    const bool takeRight = standsAfter(*left, *right);
    *to++ = takeRight ? *right : *left;
    right += takeRight;
    left += !takeRight;
  }
  std::copy(right, end, std::copy(left, middle, to));
}

/// Merge sort that asks nothing of `standsAfter` but an answer: 32-bit differences order no three keys that
/// lie more than 2^31 apart consistently, and the library's sorts may run out of bounds on such an order.
void mergeSort(std::vector<SortKey>& keys) {
  std::vector<SortKey> merged(keys.size());
  for (size_t run = 1; run < keys.size(); run *= 2) {
    for (size_t begin = 0; begin < keys.size(); begin += 2 * run) {
      const size_t middle = std::min(begin + run, keys.size());
      const size_t end = std::min(middle + run, keys.size());
      mergeRuns(&keys[begin], keys.data() + middle, keys.data() + end, &merged[begin]);
    }
    keys.swap(merged);
  }
}

/// Brings the entries into the order of `keys`, moving each once; uses `keys` up.
void permute(std::span<task_statistics> tasks, std::vector<SortKey>& keys) {
  for (uint32_t place = 0; place < tasks.size(); ++place) {
    if (keys[place].index == place) continue;
    task_statistics displaced;
    platform::copyRecord(displaced, tasks[place]);
    uint32_t hole = place;
    while (keys[hole].index != place) {
      const uint32_t from = std::exchange(keys[hole].index, hole);
      platform::copyRecord(tasks[hole], tasks[from]);
      hole = from;
    }
    platform::copyRecord(tasks[hole], displaced);
    keys[hole].index = hole;
  }
}

}  // namespace

void sortByPid(std::span<task_statistics> tasks) {
  if (std::ranges::is_sorted(tasks, {}, &task_statistics::pid)) return;
  // With the sign bit flipped, unsigned keys are in the order of the signed pids.
  std::vector<SortKey> keys(tasks.size());
  for (uint32_t i = 0; i < tasks.size(); ++i)
    keys[i] = {static_cast<uint32_t>(tasks[i].pid) ^ 0x80000000u, i};
  platform::sortByKey(keys);
  permute(tasks, keys);
}

void sortByUserTime(std::vector<SortKey>& keys) {
  if (keys.empty()) return;
  const auto [lowest, highest] = std::ranges::minmax(keys, {}, &SortKey::key);
  if (highest.key - lowest.key > uint32_t{INT32_MAX}) return mergeSort(keys);
  // A consistent order, in which those that have slept, the most of them, are the last.
  const auto spent = [](const SortKey& element) { return element.key != 0; };
  const std::span busy(keys.begin(), std::stable_partition(keys.begin(), keys.end(), spent));
  for (SortKey& element : busy) element.key = ~element.key;
  platform::sortByKey(busy);
  for (SortKey& element : busy) element.key = ~element.key;
}

}  // namespace quorveld
