#include "tools/memory/memory_series.h"

#include <algorithm>
#include <functional>
#include <map>
#include <utility>

#include "tools/memory/memory_growth.h"

namespace quorvelctl {
namespace {

using Line = MemorySeries::Line;

/// Lines by name, of so many reports.
class Lines {
 public:
  explicit Lines(size_t reports) : reports_(reports) {}

  void add(size_t report, const std::string& name, uint64_t bytes) {
    Line& line = byName_[name];
    if (line.bytes.empty()) line = {name, std::vector<double>(reports_, 0)};
    line.bytes[report] += static_cast<double>(bytes);
  }

  /// The line of `name`, which is then no more among these.
  Line take(const std::string& name) {
    auto found = byName_.extract(name);
    return found ? std::move(found.mapped()) : Line{name, std::vector<double>(reports_, 0)};
  }

  std::vector<Line> largestFirst() const {
    std::vector<Line> lines;
    lines.reserve(byName_.size());
    for (const auto& [name, line] : byName_) lines.push_back(line);
    std::sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) {
      return std::pair(b.largest(), a.name) < std::pair(a.largest(), b.name);
    });
    return lines;
  }

 private:
  size_t reports_;
  std::map<std::string, Line> byName_;
};

std::vector<Line> atMost(std::vector<Line> lines, size_t maxLines) {
  if (lines.size() > maxLines) lines.resize(maxLines);
  return lines;
}

void addTo(Line& sum, const Line& line) {
  std::transform(sum.bytes.begin(), sum.bytes.end(), line.bytes.begin(), sum.bytes.begin(), std::plus<>());
}

/// The parts in the order in which they lie on each other: what is free on top, so that the edge below it is
/// what is used.
std::vector<Line> stacked(Lines parts, size_t maxLines) {
  Line free = parts.take("free");
  addTo(free, parts.take(kCpuLists));
  Line unaccounted = parts.take(kUnaccounted);
  std::vector<Line> lines = parts.largestFirst();
  if (lines.size() > maxLines) {
    Line rest = {"all else that is known", std::vector<double>(free.bytes.size(), 0)};
    for (size_t i = maxLines; i < lines.size(); ++i) addTo(rest, lines[i]);
    lines.resize(maxLines);
    lines.push_back(std::move(rest));
  }
  lines.push_back(std::move(unaccounted));
  lines.push_back(std::move(free));
  return lines;
}

}  // namespace

double Line::largest() const {
  return bytes.empty() ? 0 : *std::max_element(bytes.begin(), bytes.end());
}

std::vector<size_t> startsOf(const std::vector<std::optional<uint64_t>>& faults) {
  std::vector<size_t> starts;
  std::optional<uint64_t> before;
  for (const std::optional<uint64_t>& now : faults) {
    // A count that is a little less is no start, but an hour that clocks have shown twice.
    const bool anew = before && now && *now < *before / 2;
    starts.push_back((starts.empty() ? 0 : starts.back()) + (anew ? 1 : 0));
    if (now) before = now;
  }
  return starts;
}

std::vector<size_t> startsOf(const std::vector<MemoryReport>& reports) {
  std::vector<std::optional<uint64_t>> faults;
  faults.reserve(reports.size());
  for (const MemoryReport& report : reports) faults.push_back(report.counter("faults"));
  return startsOf(faults);
}

MemorySeries seriesOf(const std::vector<MemoryReport>& reports, size_t maxLines) {
  const auto hasNoAccount = [](const MemoryReport& report) { return !accountOf(report); };
  const auto count =
      reports.size() - static_cast<size_t>(std::count_if(reports.begin(), reports.end(), hasNoAccount));
  MemorySeries series;
  Lines account(count);
  Lines processes(count);
  Lines zones(count);
  const std::vector<size_t> starts = startsOf(reports);
  for (size_t i = 0; i < reports.size(); ++i) {
    const MemoryReport& report = reports[i];
    const auto parts = accountOf(report);
    if (!parts) continue;
    const size_t at = series.hours.size();
    series.hours.push_back(hoursOf(report.timestamp).value_or(0));
    series.starts.push_back(starts[i]);
    for (const NamedBytes& part : parts->parts) {
      if (part.bytes != 0) account.add(at, part.name, part.bytes);
    }
    account.add(at, kUnaccounted, static_cast<uint64_t>(std::max<int64_t>(parts->unaccountedBytes, 0)));
    series.totalBytes = std::max({series.totalBytes, static_cast<double>(parts->totalBytes),
                                  static_cast<double>(sumOf(parts->parts))});
    for (const MemoryProcess& process : report.processes) {
      processes.add(at, process.name, process.footprintBytes);
    }
    for (const NamedBytes& zone : report.zones) zones.add(at, zone.name, zone.bytes);
  }
  series.account = stacked(std::move(account), maxLines);
  series.processes = atMost(processes.largestFirst(), maxLines);
  series.zones = atMost(zones.largestFirst(), maxLines);
  return series;
}

}  // namespace quorvelctl
