#pragma once

namespace quorveld {

// The daemon's directories, in the order in which they are made. The platform takes every path below its
// root.
inline constexpr const char* kCacheDirectory = "/var/root/Library/Caches/quorveld";
inline constexpr const char* kTemporaryDirectory = "/var/root/Library/Caches/quorveld/tmp";
inline constexpr const char* kSpoolDirectory = "/var/root/Library/Caches/quorveld/spool";

/// Where complete memory reports appear. Not made by the daemon: it belongs to the system's collector of
/// reports.
inline constexpr const char* kMemoryReportDirectory = "/Library/Logs/Faultkeep";

}  // namespace quorveld
