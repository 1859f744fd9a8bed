#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/linux/base/unique_fd.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// Lines of one level that are let through in one second. Far above what the daemon says at its busiest;
/// below what a client that floods it could make it write.
inline constexpr uint32_t kMaxLogLinesPerSecond = 2000;

/// What goes out as one line.
struct LogRecord {
  platform::LogLevel level;
  std::string_view subsystem;
  std::string_view category;
  std::string_view text;
  uint64_t signpostId = 0;             ///< 0: no signpost
  const char* signpostType = nullptr;  ///< "begin" or "end"
};

/// Text on its way into a line: a buffer on the stack, the heap for what is longer.
class LineBuffer {
 public:
  void append(std::string_view bytes);
  /// Control characters as \n, \t or \xNN, so that `text` stays one line and steers no terminal. Bytes that
  /// are no UTF-8 stay as they are.
  void appendHarmless(std::string_view text);
  void appendNumber(uint64_t number);
  std::string_view view() const;

 private:
  std::array<char, 1024> small_;
  size_t smallLength_ = 0;
  std::string large_;
  bool isLarge_ = false;
};

/// Lets kMaxLogLinesPerSecond lines pass in each second and counts the rest.
class LineBudget {
 public:
  struct Verdict {
    bool pass;
    uint64_t droppedBefore;  ///< lines of earlier seconds to own up to, before this one
  };
  Verdict take(int64_t monotonicSeconds);

 private:
  std::mutex mutex_;
  int64_t second_ = -1;
  uint32_t used_ = 0;
  uint64_t dropped_ = 0;
};

/// Writes records to the journal when stderr is connected to it, else to stderr. From any thread. Never fails
/// upwards: a line that can't be written (nobody reads, the disk is full) is lost.
class LogSink {
 public:
  LogSink();

  bool enabled(platform::LogLevel level) const { return level <= threshold_; }

  /// Within the level's budget; a line that says how many were dropped goes out before the first one after.
  void write(const LogRecord& record);

 private:
  void emit(const LogRecord& record);
  void emitToJournal(const LogRecord& record);
  void emitToStderr(const LogRecord& record);
  void readThreshold();

  bool toJournal_;
  platform::LogLevel threshold_ = platform::LogLevel::info;
  std::array<LineBudget, 3> budgets_;
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
