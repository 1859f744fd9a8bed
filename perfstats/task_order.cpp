#include "perfstats/task_order.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace quorveld {

namespace {

/// What one entry is sorted by, and where the entry stands.
struct SortKey {
  uint32_t key;
  uint32_t index;
};

constexpr unsigned kDigitBits = 11;
constexpr size_t kDigits = size_t{1} << kDigitBits;

uint32_t digit(const SortKey& element, unsigned shift) {
  return element.key >> shift & (kDigits - 1);
}

/// Radix sort by key, ascending; digits that all keys share cost no pass.
void radixSort(std::vector<SortKey>& keys) {
  std::vector<SortKey> sorted(keys.size());
  for (unsigned shift = 0; shift < 32; shift += kDigitBits) {
    std::array<uint32_t, kDigits> place{};
    for (const SortKey& element : keys) ++place[digit(element, shift)];
    if (place[digit(keys.front(), shift)] == keys.size()) continue;
    uint32_t next = 0;
    for (uint32_t& count : place) next += std::exchange(count, next);
    for (const SortKey& element : keys) sorted[place[digit(element, shift)]++] = element;
    keys.swap(sorted);
  }
}

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

/// Copies an entry in words of a vector register: compilers turn a plain assignment of this size into a
/// string instruction that takes three times as long.
void copyTask(task_statistics& to, const task_statistics& from) {
  constexpr size_t kWordBytes = 16;
  static_assert(sizeof to % kWordBytes == 0);
  auto* target = reinterpret_cast<std::byte*>(&to);
  const auto* source = reinterpret_cast<const std::byte*>(&from);
  for (size_t at = 0; at < sizeof to; at += kWordBytes) std::memcpy(target + at, source + at, kWordBytes);
}

/// Brings the entries into the order of `keys`, moving each once; uses `keys` up.
void permute(std::span<task_statistics> tasks, std::vector<SortKey>& keys) {
  for (uint32_t place = 0; place < tasks.size(); ++place) {
    if (keys[place].index == place) continue;
    task_statistics displaced;
    copyTask(displaced, tasks[place]);
    uint32_t hole = place;
    while (keys[hole].index != place) {
      const uint32_t from = std::exchange(keys[hole].index, hole);
      copyTask(tasks[hole], tasks[from]);
      hole = from;
    }
    copyTask(tasks[hole], displaced);
    keys[hole].index = hole;
  }
}

template <typename KeyOf>
std::vector<SortKey> sortKeys(std::span<const task_statistics> tasks, KeyOf keyOf) {
  std::vector<SortKey> keys(tasks.size());
  for (uint32_t i = 0; i < tasks.size(); ++i) keys[i] = {keyOf(tasks[i]), i};
  return keys;
}

}  // namespace

void sortByPid(std::span<task_statistics> tasks) {
  if (std::ranges::is_sorted(tasks, {}, &task_statistics::pid)) return;
  // With the sign bit flipped, unsigned keys are in the order of the signed pids.
  std::vector<SortKey> keys = sortKeys(
      tasks, [](const task_statistics& task) { return static_cast<uint32_t>(task.pid) ^ 0x80000000u; });
  radixSort(keys);
  permute(tasks, keys);
}

void sortByUserTime(std::span<task_statistics> tasks) {
  std::vector<SortKey> keys = sortKeys(
      tasks, [](const task_statistics& task) { return static_cast<uint32_t>(task.rusage.user_time); });
  mergeSort(keys);
  permute(tasks, keys);
}

}  // namespace quorveld
