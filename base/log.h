#pragma once

#include "platform/log.h"

namespace quorveld {

/// Formats lines for one log handle. A cheap value; from any thread. A null `%s` argument prints as "(null)".
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

/// One line through the platform's system log call.
[[gnu::format(printf, 1, 2)]] void systemLog(const char* format, ...);

}  // namespace quorveld
