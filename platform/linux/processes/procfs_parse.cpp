#include "platform/linux/processes/procfs_parse.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace quorveld::linux_platform {

namespace {

constexpr size_t kMaxCommBytes = 15;

/// Takes the next field, up to a blank, off the front of `text`.
std::string_view takeField(std::string_view& text) {
  const size_t begin = std::min(text.find_first_not_of(' '), text.size());
  const size_t end = std::min(text.find_first_of(" \n", begin), text.size());
  const std::string_view field = text.substr(begin, end - begin);
  text.remove_prefix(end);
  return field;
}

template <typename Number>
bool takeNumber(std::string_view& text, Number& number) {
  const std::string_view field = takeField(text);
  const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), number);
  return error == std::errc() && end == field.data() + field.size();
}

void skipFields(std::string_view& text, int count) {
  for (int i = 0; i < count; ++i) takeField(text);
}

/// Calls `line(key, rest)` for each "key:rest" line.
template <typename Line>
void forEachLine(std::string_view text, const Line& line) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    const size_t colon = text.substr(0, end).find(':');
    if (colon != std::string_view::npos) {
      line(text.substr(0, colon), text.substr(colon + 1, end - colon - 1));
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

}  // namespace

uint64_t leadingNumber(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

std::optional<ProcfsStat> parseStat(std::string_view text) {
  // A name may hold anything, ") R 1" too: it ends at the last parenthesis.
  const size_t open = text.find('(');
  const size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  ProcfsStat stat{};
  stat.comm = text.substr(open + 1, close - open - 1);

  std::string_view rest = text.substr(close + 1);
  const std::string_view state = takeField(rest);
  stat.state = state.empty() ? '\0' : state.front();
  skipFields(rest, 5);  // 4 ppid to 8 tpgid
  bool whole = takeNumber(rest, stat.flags);
  skipFields(rest, 2);  // 10 minflt, 11 cminflt
  whole = whole && takeNumber(rest, stat.majorFaults) && takeNumber(rest, stat.childMajorFaults) &&
          takeNumber(rest, stat.userTicks) && takeNumber(rest, stat.systemTicks) &&
          takeNumber(rest, stat.childUserTicks) && takeNumber(rest, stat.childSystemTicks);
  skipFields(rest, 1);  // 18 priority
  whole = whole && takeNumber(rest, stat.nice) && takeNumber(rest, stat.threadCount);
  skipFields(rest, 1);  // 21 itrealvalue
  whole = whole && takeNumber(rest, stat.startTicks);
  skipFields(rest, 18);  // 23 vsize to 40 rt_priority
  whole = whole && takeNumber(rest, stat.policy);
  return whole ? std::optional(stat) : std::nullopt;
}

std::string_view commOf(const ProcfsStat& stat) {
  std::string_view comm = stat.comm;
  // A rescuer's name, "kworker/R-…", is followed by its queue's name whole; its own is that cut short.
  if (stat.isWorkqueueWorker() && !comm.starts_with("kworker/R-")) {
    comm = comm.substr(0, comm.find_first_of("+-"));
  }
  return comm.substr(0, kMaxCommBytes);
}

ProcfsStatus parseStatus(std::string_view text) {
  ProcfsStatus status{};
  forEachLine(text, [&](std::string_view key, std::string_view value) {
    if (key == "VmRSS") status.residentKb = leadingNumber(value);
    if (key == "VmRSS") status.hasMemory = true;
    if (key == "RssAnon") status.anonymousKb = leadingNumber(value);
    if (key == "VmSwap") status.swappedKb = leadingNumber(value);
    if (key == "VmLck") status.lockedKb = leadingNumber(value);
    if (key == "HugetlbPages") status.hugeKb = leadingNumber(value);
  });
  return status;
}

uint64_t parseSchedstat(std::string_view text) {
  return leadingNumber(text);
}

uint64_t parseSched(std::string_view text) {
  constexpr uint64_t kNsPerMs = 1'000'000;
  constexpr size_t kDecimals = 6;
  uint64_t runtimeNs = 0;
  forEachLine(text, [&](std::string_view key, std::string_view value) {
    // "se.sum_exec_runtime     :       1234.567890", in milliseconds; other figures have longer names.
    if (key.substr(0, key.find_last_not_of(' ') + 1) != "se.sum_exec_runtime") return;
    const size_t point = value.find('.');
    if (point == std::string_view::npos) return;
    const std::string_view decimals = value.substr(point + 1, kDecimals);
    if (decimals.size() == kDecimals) runtimeNs = leadingNumber(value) * kNsPerMs + leadingNumber(decimals);
  });
  return runtimeNs;
}

ProcfsIo parseIo(std::string_view text) {
  ProcfsIo io{};
  forEachLine(text, [&](std::string_view key, std::string_view value) {
    if (key == "read_bytes") io.readBytes = leadingNumber(value);
    if (key == "write_bytes") io.writeBytes = leadingNumber(value);
  });
  return io;
}

int64_t parseClockOffset(std::string_view text, std::string_view clock) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    int64_t seconds = 0;
    int64_t nanoseconds = 0;
    if (takeField(line) != clock || !takeNumber(line, seconds) || !takeNumber(line, nanoseconds)) continue;
    return seconds * 1'000'000'000 + nanoseconds;
  }
  return 0;
}

}  // namespace quorveld::linux_platform
