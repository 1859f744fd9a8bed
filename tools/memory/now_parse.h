#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvelctl {

// The kernel's texts about memory at this moment, as values. What is missing reads as 0 or nothing.

/// Bytes of the line "KEY: N kB" of meminfo, of a process's status, or of smaps_rollup (proc(5)).
std::optional<uint64_t> lineBytes(std::string_view text, std::string_view key);

/// The number of the line "KEY N" of vmstat, or of a control group's memory.stat and memory.events.
uint64_t lineNumber(std::string_view text, std::string_view key);

/// Pages free in the lists that each CPU keeps, of zoneinfo.
uint64_t pagesInCpuLists(std::string_view zoneinfo);

/// Pages that TCP's buffers take, of net/sockstat.
uint64_t pagesOfTcp(std::string_view sockstat);

/// Bytes that a zram device takes, of its mm_stat.
uint64_t bytesOfZram(std::string_view mmStat);

/// The path of the control group that /proc/PID/cgroup gives: version 2's, where there is one below its root,
/// or version 1's memory controller's.
std::string cgroupPath(std::string_view text);

/// The arguments of /proc/PID/cmdline.
std::vector<std::string> argumentsOf(std::string_view cmdline);

/// What a process of `program` (its file's name) is best called: an interpreter by the script that it runs,
/// "backup.py (python3.11)".
std::string nameOfProgram(const std::string& program, const std::vector<std::string>& arguments);

/// A mounted tmpfs, of mountinfo, its path unescaped.
struct TmpfsMount {
  std::string path;
  std::string device;  ///< "major:minor"
};
std::vector<TmpfsMount> parseTmpfsMounts(std::string_view mountinfo);

/// A mapping of shared memory, of /proc/PID/maps: of a memfd, a tmpfs's file, a SysV segment, or anonymous.
struct SharedMapping {
  std::string range;   ///< "start-end", as map_files names it
  std::string device;  ///< "major:minor", decimal
  uint64_t inode = 0;
  std::string path;
};
/// Those of a path that looks like one, or on one of these devices.
std::vector<SharedMapping> parseSharedMappings(std::string_view maps, const std::vector<TmpfsMount>& mounts);

/// A segment of /proc/sysvipc/shm.
struct SysvSegment {
  uint64_t id = 0;
  uint64_t inode = 0;  ///< of its file, which mappings name: its number is the segment's id
  uint64_t bytes = 0;  ///< in memory and swapped out
  uint64_t attached = 0;
  int32_t creatorPid = 0;
};
std::vector<SysvSegment> parseSysvSegments(std::string_view text);

}  // namespace quorvelctl
