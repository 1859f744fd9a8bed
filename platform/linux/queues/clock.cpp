#include "platform/linux/queues/clock.h"

#include <time.h>

#include <charconv>
#include <fstream>
#include <iterator>
#include <string>

namespace quorveld::linux_platform {

namespace {

std::chrono::nanoseconds read(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace

uint64_t ticksOfNanoseconds(uint64_t nanoseconds) {
  // 125 ns are 3 ticks; multiplied part by part, so that no product leaves 64 bits.
  return nanoseconds / 125 * 3 + nanoseconds % 125 * 3 / 125;
}

std::optional<int64_t> parseBootTime(std::string_view procStat) {
  constexpr std::string_view kField = "btime ";
  for (size_t line = 0; line < procStat.size();) {
    const size_t end = std::min(procStat.find('\n', line), procStat.size());
    const std::string_view text = procStat.substr(line, end - line);
    line = end + 1;
    if (!text.starts_with(kField)) continue;
    int64_t seconds = 0;
    const char* stop = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data() + kField.size(), stop, seconds);
    if (error != std::errc() || parsed != stop) return std::nullopt;
    return seconds;
  }
  return std::nullopt;
}

uint64_t LinuxClock::absoluteTime() {
  return ticksOfNanoseconds(static_cast<uint64_t>(read(CLOCK_MONOTONIC).count()));
}

uint64_t LinuxClock::timeSinceBoot() {
  return ticksOfNanoseconds(static_cast<uint64_t>(read(CLOCK_BOOTTIME).count()));
}

platform::WallTime LinuxClock::wallTime() {
  return platform::WallTime(read(CLOCK_REALTIME));
}

std::optional<int64_t> LinuxClock::bootTimeSeconds() {
  std::ifstream file("/proc/stat");
  return parseBootTime(std::string(std::istreambuf_iterator<char>(file), {}));
}

}  // namespace quorveld::linux_platform
