#include "platform/record_order.h"

#include <array>
#include <utility>

namespace quorveld::platform {

namespace {

constexpr unsigned kDigitBits = 11;
constexpr size_t kDigits = size_t{1} << kDigitBits;

uint32_t digit(const SortKey& element, unsigned shift) {
  return element.key >> shift & (kDigits - 1);
}

}  // namespace

void sortByKey(std::vector<SortKey>& keys) {
  if (keys.empty()) return;
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

}  // namespace quorveld::platform
