#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/json_access.h"
#include "tools/report/report_verdict.h"

namespace quorvelctl {

/// How a launch went. Names come from applications and may hold anything.
struct ReportLaunch {
  /// What a thread did, or several of one name, as long as others had to wait for it.
  struct Share {
    VerdictThread thread;  ///< the one with most of it
    int64_t threads = 1;
    std::string doing;  ///< a state, or "disk"
    double durationMs = 0;
    std::string function = {};  ///< that most of it was in; empty: not told
  };
  /// From one mark to the next.
  struct Phase {
    std::string from;
    std::string to;
    std::string process;  ///< whose mark `to` is; empty: the launch's own
    int64_t pid = 0;
    double durationMs = 0;
    std::optional<Share> mostly;
  };
  struct Process {
    int64_t pid = 0;
    std::string name;
    int64_t parent = 0;  ///< 0: it is the launched one
    int64_t threads = 0;
    double madeUs = 0;  ///< CLOCK_MONOTONIC; 0: not in the launch
    double endedUs = 0;
    double runningMs = 0;
  };

  int64_t pid = 0;
  std::string name;
  VerdictThread followed;  ///< the thread that the verdict is about; tid 0: nothing is recorded or sampled
  std::vector<Phase> phases;
  std::vector<Share> path;  ///< most first
  std::vector<Process> processes;
  int64_t processCount = 0;
};

/// Nothing when `json` is no object: no launch, or one of which no process is known.
std::optional<ReportLaunch> launchOf(const Json& json);

}  // namespace quorvelctl
