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
    std::string source;  ///< "recorder", or "samples" or "one look" without one
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
  /// One of those who wait for each other.
  struct Link {
    VerdictThread thread;
    std::string text;      ///< what it waits for, or does: "waits for a lock that 'db' (16) holds"
    std::string sureness;  ///< of that; empty: it waits for nobody who is known
    std::string evidence;
    std::string function;    ///< where it was; empty: not known
    bool isCulprit = false;  ///< the others wait for it, in the end
    int64_t waitsFor = 0;    ///< the thread; 0: nobody who is known
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
    std::optional<VerdictThread> rival;  ///< of a hang by a disk: who of others had most of it
  };
  /// Percent of the ten seconds before in which some, or all, tasks stalled.
  struct Pressure {
    std::string resource;
    double some = 0;
    std::optional<double> full;
  };

  std::string cause;
  std::string sentence;
  std::string function;  ///< where the hung thread was; empty: not known
  Evidence evidence;
  std::vector<std::pair<std::string, double>> spent;  ///< state and milliseconds, most first, no 0
  std::vector<Wait> waits;                            ///< longest first
  std::vector<Link> chain;                            ///< who waited for whom, the hung thread first
  std::vector<Busy> busiest;                          ///< most first
  std::optional<Disk> disk;
  std::vector<Pressure> pressure;
};

VerdictThread verdictThreadOf(const Json& json);

/// Nothing when `json` is no object: a report from before there were verdicts.
std::optional<ReportVerdict> verdictOf(const Json& json);

}  // namespace quorvelctl
