#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/vm_statistics.h"

namespace quorveld::linux_platform {

/// The statistics that the texts of /proc/vmstat and /proc/meminfo give; which line feeds which field stands
/// in docs/linux-platform.md. A line that this kernel doesn't have counts as 0, and a count that exceeds its
/// 32-bit field fills it. Nothing when `meminfo` has no "MemFree" or `vmstat` is empty.
std::optional<platform::vm_statistics64> parseVmStatistics(std::string_view vmstat, std::string_view meminfo,
                                                           uint64_t pageSizeBytes);

/// From /proc. From any thread: nothing is kept between calls.
class LinuxHostStatistics final : public platform::HostStatistics {
 public:
  /// Reads what is below `procDirectory`.
  explicit LinuxHostStatistics(const char* procDirectory = "/proc") : procDirectory_(procDirectory) {}

  [[nodiscard]] bool vmStatistics(platform::vm_statistics64* statistics) override;
  uint64_t pageSizeBytes() override;

 private:
  const char* procDirectory_;
};

}  // namespace quorveld::linux_platform
