#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace quorveld::linux_platform {

/// Upper bounds of a distribution's buckets, in milliseconds; what is longer falls in the last, open one.
inline constexpr std::array<double, 12> kBucketBoundsMs = {50,   100,  250,   500,   1000,  2000,
                                                           5000, 8000, 15000, 30000, 60000, 300000};

struct Distribution {
  std::array<uint64_t, kBucketBoundsMs.size() + 1> buckets{};  // each value counts in one
  uint64_t count = 0;
  double sum = 0;

  void add(double value);
  Distribution& operator+=(const Distribution& other);
};

/// The names that a key holds, each on its own.
struct KeyLabels {
  std::string hang;
  std::string bundle;
  std::string process;
};

/// What the daemon itself takes, and the files that it keeps.
struct OwnFigures {
  double cpuSeconds = 0;
  uint64_t residentBytes = 0;
  uint64_t spoolReports = 0;
  uint64_t spoolBytes = 0;
  uint64_t launchLogBytes = 0;
};

using LabelsOfKeys = std::map<std::string, KeyLabels, std::less<>>;

/// Everything that analytics has been told, by key; labels are there of keys that hold names.
struct Metrics {
  std::map<std::string, int64_t, std::less<>> scalars;
  std::map<std::string, uint64_t, std::less<>> counters;
  std::map<std::string, Distribution, std::less<>> distributions;
  LabelsOfKeys counterLabels;
  LabelsOfKeys distributionLabels;
};

/// `metrics` in Prometheus's text format 0.0.4: the families quorveld_build_info, and, where there are
/// any, quorveld_scalar, quorveld_events_total and quorveld_duration_seconds with a label `key` for the key.
/// Keys are written as well-formed UTF-8.
/// The names in a key are labels beside it. `own` is told in families of its own.
std::string prometheusText(const Metrics& metrics, const OwnFigures& own);

}  // namespace quorveld::linux_platform
