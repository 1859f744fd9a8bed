#pragma once

namespace quorveld::linux_platform {

/// One line of the Linux platform in the daemon's log (subsystem "com.corvix.quorvel", empty category), at
/// default, info or debug level. From any thread, once a platform is installed.
[[gnu::format(printf, 1, 2)]] void logDefault(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void logInfo(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void logDebug(const char* format, ...);

}  // namespace quorveld::linux_platform
