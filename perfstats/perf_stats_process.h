#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quorveld {

/// The identity under which a process is reported to the power-logging service.
class PerfStatsProcess {
 public:
  PerfStatsProcess(int32_t pid, std::string name);

  /// From a kernel's name, whose bytes outside ASCII become U+FFFD.
  static PerfStatsProcess processWithPID(int32_t pid, const char* name);

  /// The pid in the low word, the name's hash in the high one: the same in every report as long as pid and
  /// name stay. A negative pid is widened with its sign, which fills the high word with ones: the process
  /// that stands for all the others (pid -1) has one identifier whatever its name, and readers rely on it.
  static uint64_t generateUniqueIDForPID(int32_t pid, std::string_view processName);

  int32_t pid() const { return pid_; }
  const std::string& processName() const { return processName_; }
  uint64_t uniqueIdentifier() const { return uniqueIdentifier_; }

 private:
  int32_t pid_;
  std::string processName_;
  uint64_t uniqueIdentifier_;
};

}  // namespace quorveld
