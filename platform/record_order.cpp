#include "platform/record_order.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace quorveld::platform {

namespace {

/// Few enough that the counters of a pass cost less than its thousand keys.
constexpr unsigned kDigitBits = 8;
constexpr size_t kDigits = size_t{1} << kDigitBits;

uint32_t digit(const SortKey& element, unsigned shift) {
  return element.key >> shift & (kDigits - 1);
}

}  // namespace

void sortByKey(std::span<SortKey> keys) {
  if (keys.empty()) return;
  std::vector<SortKey> sorted(keys.size());
  std::span<SortKey> from = keys, to = sorted;
  for (unsigned shift = 0; shift < 32; shift += kDigitBits) {
    std::array<uint32_t, kDigits> place{};
    for (const SortKey& element : from) ++place[digit(element, shift)];
    if (place[digit(from.front(), shift)] == from.size()) continue;
    uint32_t next = 0;
    for (uint32_t& count : place) next += std::exchange(count, next);
    for (const SortKey& element : from) to[place[digit(element, shift)]++] = element;
    std::swap(from, to);
  }
  if (from.data() != keys.data()) std::ranges::copy(from, keys.begin());
}

}  // namespace quorveld::platform
