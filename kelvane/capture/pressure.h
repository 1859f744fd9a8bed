#pragma once

#include <optional>
#include <string_view>

namespace kelvane {

/// Pressure stall information of one resource, in percent of the last ten seconds
/// (Documentation/accounting/psi.rst of the kernel).
struct PressureLine {
  double some10 = 0;             // at least one task was held up
  std::optional<double> full10;  // every task that had something to do was
};

/// What the kernel tells; nothing where it doesn't keep these figures.
struct Pressure {
  std::optional<PressureLine> cpu;
  std::optional<PressureLine> memory;
  std::optional<PressureLine> io;
};

/// The text of a file in /proc/pressure; nothing if it is none.
std::optional<PressureLine> parsePressure(std::string_view text);

Pressure readPressure();

}  // namespace kelvane
