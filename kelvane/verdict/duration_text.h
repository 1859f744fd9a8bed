#pragma once

#include <cstdint>
#include <string>

/// How sentences tell numbers and times.
namespace kelvane {

/// "8.5".
std::string decimal(double number);

/// "7.9 of 8.5 s", "340 of 400 ms", "all of 8.5 s".
std::string ofDuration(uint64_t partNs, uint64_t wholeNs);

/// "8.5 s", "400 ms".
std::string durationText(uint64_t ns);

}  // namespace kelvane
