#pragma once

#include <cstdarg>
#include <cstdint>

#include "platform/log.h"

namespace quorveld {

/// Formats lines for one log handle. A cheap value; from any thread. A null `%s` argument prints as "(null)";
/// a line is cut off behind kMaxLogTextBytes, whoever's text made it long, but for debug lines.
class Log {
 public:
  explicit Log(platform::LogHandle& handle, const platform::LogEvent& event = {})
      : handle_(&handle), event_(event) {}

  /// For lines that tell of `event`, whose path must outlive it.
  Log about(const platform::LogEvent& event) const { return Log(*handle_, event); }

  [[gnu::format(printf, 2, 3)]] void standard(const char* format, ...) const;
  [[gnu::format(printf, 2, 3)]] void info(const char* format, ...) const;
  [[gnu::format(printf, 2, 3)]] void debug(const char* format, ...) const;

  platform::LogHandle& handle() const { return *handle_; }

 private:
  [[gnu::format(printf, 3, 0)]] void write(platform::LogLevel level, const char* format,
                                           va_list arguments) const;

  platform::LogHandle* handle_;
  platform::LogEvent event_;
};

/// The daemon's log: subsystem "com.corvix.quorvel", empty category.
Log quorvelLog();

/// While it lives, its thread logs on behalf of a client's user: what clients cause uses up their users'
/// shares of the log, nobody else's. Behind it the thread logs for whom it did before.
class LogSender {
 public:
  explicit LogSender(uint32_t uid);
  LogSender(const LogSender&) = delete;
  LogSender& operator=(const LogSender&) = delete;
  ~LogSender();

 private:
  uint32_t before_;
};

/// One line through the platform's system log call.
[[gnu::format(printf, 1, 2)]] void systemLog(const char* format, ...);

}  // namespace quorveld
