#pragma once

#include <cstdint>
#include <string_view>

namespace quorveld::platform {

enum class LogLevel : uint8_t { standard, info, debug };

/// What a line tells of, for whoever looks for lines by that and not by their texts.
enum class LogEventKind : uint8_t {
  none,               ///< a step on the way
  hang,               ///< an operation took too long
  reportSaved,        ///< a trace report is on its way into the spool
  reportRefused,      ///< a setting or credits allow none
  reportLost,         ///< what was to be kept could not be written
  slowLaunch,         ///< an activation took longer than its threshold
  activationLost,     ///< an activation is not recorded
  preferenceIgnored,  ///< a value means nothing here
  linesLost,          ///< lines that nobody will read
};

struct LogEvent {
  LogEventKind kind = LogEventKind::none;
  int32_t pid = 0;                ///< the process that it is about; 0: none
  std::string_view reportPath{};  ///< the report's; empty: none
  double durationMs = 0;          ///< how long that took; 0: nothing that takes long
  // What the report says of it, in short; empty: not known.
  std::string_view cause{};
  std::string_view culprit{};
  std::string_view signature{};
};

/// Where one part of the daemon logs: a subsystem and a category. From any thread.
class LogHandle {
 public:
  virtual ~LogHandle() = default;

  /// False when a line of `level` would be thrown away, so that it need not be formatted.
  virtual bool enabled(LogLevel level) const = 0;

  /// One line for one event. Line breaks and control characters in `text` can't forge another line.
  virtual void write(LogLevel level, std::string_view text, const LogEvent& event) = 0;
  void write(LogLevel level, std::string_view text) { write(level, text, {}); }

  /// Signpost intervals: `id` ties an end to its begin; 0 and all ones are no identifiers and must not come
  /// here.
  virtual bool signpostsEnabled() const = 0;
  virtual void signpostIntervalBegin(uint64_t id, std::string_view text) = 0;
  virtual void signpostIntervalEnd(uint64_t id, std::string_view text) = 0;
};

class Logs {
 public:
  virtual ~Logs() = default;

  /// The handle of that subsystem and category, the same object at every call; owned by this service.
  virtual LogHandle& handle(std::string_view subsystem, std::string_view category) = 0;

  /// What the calling thread says from now on is said on behalf of the user `uid`, of whom there may be many;
  /// 0, as at first: the daemon's own. A log that takes only so many lines in a time shares them out among
  /// users. Returns on whose behalf it spoke before.
  virtual uint32_t setSender(uint32_t uid) = 0;

  /// The system log call: a line that belongs to no subsystem.
  virtual void system(std::string_view text) = 0;
};

}  // namespace quorveld::platform
