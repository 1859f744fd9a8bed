#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "kelvane/base/deadline.h"
#include "kelvane/base/proc_files.h"

namespace kelvane {

/// Why there is no recording when nobody has started the recorder.
inline constexpr const char* kRecorderNotRunning = "it is not running: kelvanectl start";

/// The recorder's folder, <root>/run/kelvane, locked against every other reader while this lives. <root> is
/// the environment's QUORVELD_ROOT.
///
///   instance   link to the tracefs instance; the recorder runs when it leads somewhere
///   started    when recording began, ns of the kernel's clock (kernel_view.h) in decimal
///   cpuN       KeptPages
class RecorderFolder {
 public:
  /// Waits for the lock until `deadline`. Nothing, and the reason in `error`, when that or opening fails.
  static std::optional<RecorderFolder> open(const Deadline& deadline, std::string& error);
  /// The same, and makes the folder, for root alone, if it is missing.
  static std::optional<RecorderFolder> make(const Deadline& deadline, std::string& error);

  /// <root>/run/kelvane.
  static std::string path();

  int fd() const { return fd_.get(); }

  /// The tracefs instance as a directory; none, with errno, when the recorder doesn't run or may not be read.
  UniqueFd openInstance() const;
  /// Where "instance" leads, whether that is there or not; empty: there is no link.
  std::string instancePath() const;
  [[nodiscard]] bool linkInstance(const std::string& instance) const;
  void unlinkInstance() const;

  /// Nothing when it is not known.
  std::optional<uint64_t> startedNs() const;
  /// Drops all kept pages, and lets the past begin at `nowNs`. False, with errno, if the time can't be
  /// written.
  [[nodiscard]] bool forgetPast(uint64_t nowNs) const;

 private:
  explicit RecorderFolder(UniqueFd fd) : fd_(std::move(fd)) {}

  UniqueFd fd_;
};

}  // namespace kelvane
