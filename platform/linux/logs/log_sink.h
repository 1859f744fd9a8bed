#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/logs/log_output.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// Lines of one level that are let through in one second. Far above what the daemon says at its busiest;
/// below what a client that floods it could make it write.
inline constexpr uint32_t kMaxLogLinesPerSecond = 2000;

/// The longest line, in bytes: as much as a pipe takes whole or not at all (PIPE_BUF).
inline constexpr size_t kMaxLineBytes = 4096;

/// What goes out as one line.
struct LogRecord {
  platform::LogLevel level;
  std::string_view subsystem;
  std::string_view category;
  std::string_view text;
  platform::LogEvent event{};
  uint64_t signpostId = 0;             ///< 0: no signpost
  const char* signpostType = nullptr;  ///< "begin" or "end"
};

/// Text on its way into a line, in a buffer on the stack. What doesn't fit is cut off, with "..." in its
/// place.
class LineBuffer {
 public:
  void append(std::string_view bytes);
  /// Control characters as \n, \t or \xNN, so that `text` stays one line and steers no terminal. Bytes that
  /// are no UTF-8 stay as they are.
  void appendHarmless(std::string_view text);
  void appendNumber(uint64_t number);
  std::string_view view() const { return {bytes_.data(), length_}; }
  /// The same with a line break behind it, for which there is always room.
  std::string_view line();

 private:
  std::array<char, kMaxLineBytes> bytes_;
  size_t length_ = 0;
  bool cut_ = false;
};

/// Lets kMaxLogLinesPerSecond lines pass in each second and counts the rest.
///
/// They are shared out: lines on behalf of a user pass as long as that user has had fewer than are left for
/// the others, and a quarter is for the daemon's own and root's.
class LineBudget {
 public:
  struct Verdict {
    bool pass;
    uint64_t droppedBefore;  ///< lines of earlier seconds to own up to, before this one
  };
  Verdict take(int64_t monotonicSeconds, uint32_t sender);

 private:
  std::mutex mutex_;
  int64_t second_ = -1;
  uint32_t used_ = 0;
  std::array<uint16_t, 64> usedBy_{};  ///< by a sender's last bits: what shares a place, shares its part
  uint64_t dropped_ = 0;
};

/// Writes records to the journal when stderr is connected to it, else to stderr. From any thread. Never fails
/// upwards and never waits: a line that is not taken (nobody reads, the disk is full) is lost, and a later
/// one says how many were.
class LogSink {
 public:
  explicit LogSink(std::string_view journalSocket = "/run/systemd/journal/socket");

  bool enabled(platform::LogLevel level) const { return level <= threshold_; }

  /// Within the level's budget; a line that says how many were dropped goes out before the first one after.
  void write(const LogRecord& record);

  /// On whose behalf the calling thread's lines are written; returns on whose they were before.
  static uint32_t setSender(uint32_t uid);

 private:
  void emit(const LogRecord& record);
  void emitCount(uint64_t count, platform::LogLevel level, std::string_view what);
  void ownUpToLoss(int64_t now);
  bool emitToJournal(const LogRecord& record);
  bool emitToStderr(const LogRecord& record);
  void readThreshold();

  LogOutput output_;
  platform::LogLevel threshold_ = platform::LogLevel::info;
  std::array<LineBudget, 3> budgets_;
  std::atomic<uint64_t> lost_{0};
  std::atomic<int64_t> lossSaidAt_{0};  ///< in which monotonic second
};

/// Asynchronous begin and end marks in the kernel's trace, in the text that trace viewers draw as intervals:
/// in the flight recorder's part of it while it runs, else in everybody's.
class TraceMarker {
 public:
  /// Opens tracefs's trace_marker, where it may; says so where it may not.
  explicit TraceMarker(LogSink& sink);

  bool enabled() const;
  /// `phase` is 'S' at the begin and 'F' at the end; a viewer ties them by `name` and `id`.
  void mark(char phase, std::string_view name, uint64_t id);

 private:
  /// The recorder comes and goes while the daemon runs, so this is opened for each mark.
  std::string recorderPath_;
  UniqueFd everybodys_;
};

}  // namespace quorveld::linux_platform
