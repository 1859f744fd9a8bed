#pragma once

#include <cstdint>

#include "platform/log.h"

namespace quorveld {

/// Formats lines for one log handle. A cheap value; from any thread. A null `%s` argument prints as "(null)";
/// a line is cut off behind kMaxLogTextBytes, whoever's text made it long, but for debug lines.
class Log {
 public:
  explicit Log(platform::LogHandle& handle) : handle_(&handle) {}

  [[gnu::format(printf, 2, 3)]] void standard(const char* format, ...) const;
  [[gnu::format(printf, 2, 3)]] void info(const char* format, ...) const;
  [[gnu::format(printf, 2, 3)]] void debug(const char* format, ...) const;

  platform::LogHandle& handle() const { return *handle_; }

 private:
  platform::LogHandle* handle_;
};

/// The daemon's log: subsystem "com.corvix.quorvel", empty category.
Log quorvelLog();

/// While it lives, its thread logs on behalf of a client's user: what clients cause uses up their users'
/// shares of the log, nobody else's.
class LogSender {
 public:
  explicit LogSender(uint32_t uid);
  LogSender(const LogSender&) = delete;
  LogSender& operator=(const LogSender&) = delete;
  ~LogSender();
};

/// One line through the platform's system log call.
[[gnu::format(printf, 1, 2)]] void systemLog(const char* format, ...);

}  // namespace quorveld
