#include "perfstats/activation_flags.h"

#include <algorithm>
#include <array>

#include "base/log.h"

namespace quorveld {

namespace {

struct BitField {
  int width;
  int shift;
};
constexpr std::array<BitField, 6> kFields{{{1, 18}, {1, 19}, {2, 20}, {5, 8}, {5, 13}, {8, 0}}};

}  // namespace

void insert_activation_flag(uint64_t value, ActivationFlag field, uint64_t& flags) {
  const auto index = static_cast<uint32_t>(field);
  if (index >= kFields.size()) return;
  const auto [width, shift] = kFields[index];
  const uint64_t maximum = (uint64_t{1} << width) - 1;
  const uint64_t inserted = std::min(value, maximum);
  flags |= inserted << shift;
  quorvelLog().debug("QVActivationStats: Value to insert:%llx Output Value:%llx MaxValue:%llx Index:%d",
                     static_cast<unsigned long long>(inserted), static_cast<unsigned long long>(flags),
                     static_cast<unsigned long long>(maximum), shift);
}

}  // namespace quorveld
