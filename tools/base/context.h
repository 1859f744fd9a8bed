#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quorvelctl {

inline constexpr int kFailed = 1;
inline constexpr int kWrongUsage = 2;

/// What every command of one run shares: where the daemon's files are, how to answer, and the exit status so
/// far.
struct Context {
  std::string root;  ///< put before every path of the daemon
  bool json = false;
  int status = 0;
  std::vector<std::string> command;  ///< what follows "--" after `launch`

  std::string path(std::string_view absolute) const { return root + std::string(absolute); }

  /// Says on stderr what went wrong and sets the status.
  void fail(const std::string& message, int failedStatus = kFailed);
};

}  // namespace quorvelctl
