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

  /// Beyond so many bytes the notes of what was left out begin anew: nobody waits for old ones.
  static constexpr uint64_t kMaxLeftOutBytes = uint64_t{64} << 10;

  void handOver(const platform::ActivationEvent& event) override;
  void leaveOut(uint64_t activationID, std::string_view reason) override;

 private:
  /// A file that the line would make longer than `maxBytes` is renamed, ".1" behind its name.
  static std::error_code append(const std::string& path, std::string_view line, uint64_t maxBytes);

  const uint64_t maxFileBytes_;
  bool failing_ = false;
};

}  // namespace quorveld::linux_platform
