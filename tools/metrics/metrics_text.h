#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvelctl {

struct Distribution {
  uint64_t count = 0;
  double sumMs = 0;
  /// How many values were at most so many milliseconds, by growing bound; the last bound is infinite.
  std::vector<std::pair<double, uint64_t>> upTo;

  double meanMs() const { return count == 0 ? 0 : sumMs / static_cast<double>(count); }
  /// The least bound that `share` (0 to 1) of the values keep to.
  double boundOf(double share) const;
};

/// The daemon's counters by key.
struct Metrics {
  std::string version;  // the daemon's; empty if it is too old to say
  std::map<std::string, double> scalars;
  std::map<std::string, double> counters;
  std::map<std::string, Distribution> distributions;
};

/// Reads the daemon's counter file (Prometheus text format; families of others are passed over). Nothing, and
/// the number of the first line that can't be read, when it is broken.
std::optional<Metrics> parseMetrics(std::string_view text, size_t& brokenLine);

}  // namespace quorvelctl
