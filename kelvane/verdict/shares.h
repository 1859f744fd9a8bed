#pragma once

#include <cstdint>

namespace kelvane {

/// From this share on, a part stands for the whole.
inline constexpr double kHalf = 0.5;

/// Whether the part is that share of the whole at least, and not nothing.
inline bool makesUp(uint64_t partNs, double share, uint64_t wholeNs) {
  return partNs > 0 && static_cast<double>(partNs) >= share * static_cast<double>(wholeNs);
}

}  // namespace kelvane
