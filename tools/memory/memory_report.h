#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvelctl {

/// The longest memory report that is read, in bytes: some half a million processes.
inline constexpr size_t kMaxMemoryReportBytes = size_t{64} * 1024 * 1024;

/// More memory than there can be, in bytes; a section that claims more is refused, so that sums and
/// differences fit 64 bits.
inline constexpr uint64_t kMaxMemoryBytes = uint64_t{1} << 60;

struct NamedBytes {
  std::string name;  ///< may hold anything
  uint64_t bytes = 0;
};

struct MemoryProcess {
  std::string name;  ///< may hold anything
  int64_t priority = 0;
  uint64_t footprintBytes = 0;
  std::string dirty;  ///< "Y", "N", or "-": not tracked
  std::vector<std::string> assertions;
};

/// A memory report of the daemon (docs/memory-report.md), its pages converted to bytes.
struct MemoryReport {
  std::string osVersion;
  std::string model;
  std::string timestamp;  ///< yyyy-MM-dd-HHmmss, the device's local time
  /// Stands among the VM counters: where these could not be read, the usual 4096 is taken.
  uint64_t pageSizeBytes = 4096;
  std::string vmError;                                     ///< why there are no VM counters
  std::vector<std::pair<std::string, uint64_t>> counters;  ///< VM counters, in pages or events
  std::vector<MemoryProcess> processes;                    ///< this and the lists below: largest first
  std::vector<NamedBytes> zones;
  std::vector<NamedBytes> uses;       ///< what is neither a process's own nor the kernel's, by its use
  std::vector<NamedBytes> consumers;  ///< of wired memory: tags, extensions and call sites
  std::vector<NamedBytes> totals;     ///< the kernel's counters, each over many consumers

  /// The VM counter, or nothing.
  std::optional<uint64_t> counter(std::string_view name) const;
};

/// The names of `uses`, and of a total.
inline constexpr const char* kSharedMemory = "shared memory: tmpfs, memfd, SysV, shared mappings";
inline constexpr const char* kHugePages = "huge pages (hugetlb)";
inline constexpr const char* kZram = "compressed swap (zram)";
inline constexpr const char* kTcpBuffers = "buffers of TCP sockets";
inline constexpr const char* kCpuLists = "free, in lists of each CPU";
inline constexpr const char* kBalloon = "given back to the hypervisor (balloon)";
inline constexpr const char* kLocked = "locked (mlock), in other figures too";
inline constexpr const char* kInPipes = "in pipes";  ///< a report of the daemon's doesn't have it
inline constexpr const char* kSwapped = "swapped out";

/// Whether a VM counter counts pages, and not events.
bool countsPages(std::string_view counter);

uint64_t sumOf(const std::vector<NamedBytes>& entries);

/// Reads a memory report; nothing, and why, when `text` isn't a whole one.
std::optional<MemoryReport> parseMemoryReport(std::string_view text, std::string& error);

inline constexpr const char* kUnaccounted = "unaccounted for";

/// All memory that the kernel hands out, by what it is used for.
struct MemoryAccount {
  uint64_t totalBytes = 0;
  std::vector<NamedBytes> parts;  ///< largest first
  /// What no part explains; slightly negative when the figures moved while they were read.
  int64_t unaccountedBytes = 0;

  /// Whether as much is unaccounted for, or counted more than once, as no moving figure explains.
  bool isOff() const;
};

/// Nothing when the report lacks the VM counters or the kernel's total.
std::optional<MemoryAccount> accountOf(const MemoryReport& report);

/// What processes can have of their own, in memory and swapped out; nothing when the report doesn't tell.
std::optional<uint64_t> processesBytes(const MemoryReport& report);

/// Whether the footprints exceed together what processes can have, as pages that forks hold together do, and
/// so each footprint of a program with several processes is an upper bound.
bool hasUpperBounds(const MemoryReport& report);

}  // namespace quorvelctl
