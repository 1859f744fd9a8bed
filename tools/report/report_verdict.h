#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/report/json_access.h"

namespace quorvelctl {

/// A thread that had to do with the hang. Names come from applications and may hold anything.
struct VerdictThread {
  int64_t tid = 0;
  std::string name;
  int64_t pid = 0;  ///< 0: not known
  std::string process;
};

/// What a report says of the cause of its hang.
struct ReportVerdict {
  struct Evidence {
    std::string source;  ///< "recorder", or "one look" without one
    double windowMs = 0;
    double coveredMs = 0;
    int64_t eventsLost = 0;
  };
  struct Wait {
    double atUs = 0;  ///< CLOCK_MONOTONIC
    double durationMs = 0;
    std::string state;
    std::string waitChannel;
    std::optional<VerdictThread> wokenBy;
  };
  struct Peer {
    int64_t pid = 0;
    std::string process;
    std::string through;  ///< by what they are connected
  };
  struct Busy {
    VerdictThread thread;
    double runningMs = 0;
  };
  struct Disk {
    int64_t requests = 0;
    int64_t readBytes = 0;
    int64_t writtenBytes = 0;
    double busyMs = 0;
    double slowestMs = 0;
  };
  /// Percent of the ten seconds before in which some, or all, tasks stalled.
  struct Pressure {
    std::string resource;
    double some = 0;
    std::optional<double> full;
  };

  std::string cause;
  std::string sentence;
  Evidence evidence;
  std::vector<std::pair<std::string, double>> spent;  ///< state and milliseconds, most first, no 0
  std::vector<Wait> waits;                            ///< longest first
  std::optional<VerdictThread> lock;                  ///< its owner
  std::optional<Peer> peer;
  std::vector<Busy> busiest;  ///< most first
  std::optional<Disk> disk;
  std::vector<Pressure> pressure;
};

/// Nothing when `json` is no object: a report from before there were verdicts.
std::optional<ReportVerdict> verdictOf(const Json& json);

}  // namespace quorvelctl
