#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/power_log.h"

namespace quorveld::linux_platform {

/// The power log: one JSON object a line in <root>/var/log/quorveld/activations.jsonl, see
/// docs/linux-platform.md.
///
/// A line is appended with one write(2), and what a write could not finish is taken back, so that a reader
/// who stops at the last line break never sees half an event. The file is opened anew for each event: whoever
/// moves it away loses nothing. One caller at a time.
class LinuxPowerLog final : public platform::PowerLog {
 public:
  /// A file that an event would make longer than this becomes activations.jsonl.1, in the place of the one
  /// before.
  static constexpr uint64_t kMaxFileBytes = uint64_t{16} << 20;

  explicit LinuxPowerLog(uint64_t maxFileBytes = kMaxFileBytes) : maxFileBytes_(maxFileBytes) {}

  void handOver(const platform::ActivationEvent& event) override;

 private:
  std::error_code append(std::string_view line) const;

  const uint64_t maxFileBytes_;
  bool failing_ = false;
};

}  // namespace quorveld::linux_platform
