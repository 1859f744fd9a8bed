#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Texts of /proc (proc(5)) as values. Pure: a broken or cut text gives nothing or what came before the
/// break.
namespace kelvane {

/// The fields of /proc/PID/stat that reports use.
struct ProcStat {
  std::string comm;
  char state = '?';
  pid_t parent = 0;
  pid_t session = 0;
  uint64_t flags = 0;        // the kernel's PF_ bits
  uint64_t majorFaults = 0;  // for which pages had to be read in
  int priority = 0;          // the kernel's: below 0 real-time, 0 to 39 by niceness; the lower goes first
  uint64_t userTicks = 0;
  uint64_t systemTicks = 0;
  uint64_t childUserTicks = 0;  // of its children that have ended and were waited for
  uint64_t childSystemTicks = 0;
  uint64_t startTicks = 0;  // when it was made, since the machine's start
  uint64_t startStack = 0;  // 0 without permission; another one after an exec
  int cpu = -1;             // that it ran on last
};
std::optional<ProcStat> parseStat(std::string_view text);

/// The number on the line "`name`:<tab>number" of /proc/PID/status; 0 if there is none.
uint64_t parseStatusNumber(std::string_view text, std::string_view name);

/// What a thread is called inside the PID namespace that it lives in, by /proc/PID/status; 0 if that is the
/// reader's own, where it has one name.
pid_t parseInnerId(std::string_view text);

/// Nanoseconds by which `clock` of a time namespace is ahead of the kernel's own, by
/// /proc/PID/timens_offsets (time_namespaces(7)); 0 for a clock that has no line there.
int64_t parseClockOffset(std::string_view text, std::string_view clock);

/// The system call that a thread is in.
struct SystemCall {
  int64_t number = -1;  // -1: blocked outside of a system call
  std::array<uint64_t, 6> arguments{};

  bool operator==(const SystemCall&) const = default;
};
/// /proc/PID/syscall; nothing for a running thread.
std::optional<SystemCall> parseSyscall(std::string_view text);

/// The functions of /proc/PID/stack, innermost first, as "name+0x1a/0x80 [module]"; at most `maxFrames`.
std::vector<std::string> parseKernelStack(std::string_view text, size_t maxFrames);

/// One line of /proc/PID/maps.
struct MapsLine {
  uint64_t start = 0;
  uint64_t end = 0;
  uint64_t fileOffset = 0;
  uint64_t inode = 0;
  bool executable = false;
  std::string_view path;  // into the line; with the kernel's escapes
};
std::optional<MapsLine> parseMapsLine(std::string_view line);

/// A path of maps: the kernel writes a newline as \012.
std::string unescapePath(std::string_view path);

/// PRETTY_NAME of os-release(5), else NAME, without quotes; empty if neither is there.
std::string parseOsReleaseName(std::string_view text);

}  // namespace kelvane
