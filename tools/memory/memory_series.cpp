#include "tools/memory/memory_series.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "tools/memory/memory_growth.h"

namespace quorvelctl {
namespace {

using Line = MemorySeries::Line;

using Entry = std::function<void(const std::string& name, uint64_t bytes)>;
/// Tells each entry of a report.
using Entries = std::function<void(const MemoryReport& report, const Entry& entry)>;

/// The names that held the most in any one report, entries of a name together: at most `maxLines`.
std::vector<Line> largestOf(const std::vector<const MemoryReport*>& reports, size_t maxLines,
                            const Entries& entriesOf) {
  // Of every name only a number is kept: reports may have very many that come and go.
  struct Sum {
    size_t report = 0;  // of which `bytes` is
    double bytes = 0;
    double largest = 0;
  };
  std::unordered_map<std::string, Sum> sums;
  for (size_t i = 0; i < reports.size(); ++i) {
    entriesOf(*reports[i], [&](const std::string& name, uint64_t bytes) {
      Sum& sum = sums[name];
      if (sum.report != i) sum = {i, 0, sum.largest};
      sum.bytes += static_cast<double>(bytes);
      sum.largest = std::max(sum.largest, sum.bytes);
    });
  }
  std::vector<std::pair<double, const std::string*>> order;
  order.reserve(sums.size());
  for (const auto& [name, sum] : sums) order.emplace_back(sum.largest, &name);
  const size_t count = std::min(maxLines, order.size());
  std::partial_sort(order.begin(), order.begin() + static_cast<ptrdiff_t>(count), order.end(),
                    [](const auto& a, const auto& b) {
                      return std::tie(b.first, *a.second) < std::tie(a.first, *b.second);
                    });
  std::vector<Line> lines;
  std::unordered_map<std::string, size_t> places;
  for (size_t i = 0; i < count; ++i) {
    places.emplace(*order[i].second, i);
    lines.push_back({*order[i].second, std::vector<double>(reports.size(), 0)});
  }
  for (size_t i = 0; i < reports.size(); ++i) {
    entriesOf(*reports[i], [&](const std::string& name, uint64_t bytes) {
      const auto place = places.find(name);
      if (place != places.end()) lines[place->second].bytes[i] += static_cast<double>(bytes);
    });
  }
  return lines;
}

/// The line of `name`, which is then no more among these.
Line taken(std::vector<Line>& lines, const std::string& name, size_t reports) {
  const auto found =
      std::find_if(lines.begin(), lines.end(), [&](const Line& line) { return line.name == name; });
  if (found == lines.end()) return {name, std::vector<double>(reports, 0)};
  Line line = std::move(*found);
  lines.erase(found);
  return line;
}

void addTo(Line& sum, const Line& line) {
  std::transform(sum.bytes.begin(), sum.bytes.end(), line.bytes.begin(), sum.bytes.begin(), std::plus<>());
}

/// The parts in the order in which they lie on each other: what is free on top, so that the edge below it is
/// what is used.
std::vector<Line> stacked(std::vector<Line> lines, size_t maxLines, size_t reports) {
  Line free = taken(lines, "free", reports);
  addTo(free, taken(lines, kCpuLists, reports));
  Line unaccounted = taken(lines, kUnaccounted, reports);
  if (lines.size() > maxLines) {
    Line rest = {"all else that is known", std::vector<double>(reports, 0)};
    for (size_t i = maxLines; i < lines.size(); ++i) addTo(rest, lines[i]);
    lines.resize(maxLines);
    lines.push_back(std::move(rest));
  }
  lines.push_back(std::move(unaccounted));
  lines.push_back(std::move(free));
  return lines;
}

}  // namespace

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
  MemorySeries series;
  std::vector<const MemoryReport*> drawn;
  const std::vector<size_t> starts = startsOf(reports);
  for (size_t i = 0; i < reports.size(); ++i) {
    const MemoryReport& report = reports[i];
    const auto account = accountOf(report);
    if (!account) continue;
    drawn.push_back(&report);
    series.hours.push_back(hoursOf(report.timestamp).value_or(0));
    series.starts.push_back(starts[i]);
    series.totalBytes = std::max({series.totalBytes, static_cast<double>(account->totalBytes),
                                  static_cast<double>(sumOf(account->parts))});
  }
  // The names of an account's parts are few.
  std::vector<Line> parts = largestOf(drawn, SIZE_MAX, [](const MemoryReport& report, const Entry& entry) {
    const MemoryAccount account = accountOf(report).value_or(MemoryAccount{});
    for (const NamedBytes& part : account.parts) {
      if (part.bytes != 0) entry(part.name, part.bytes);
    }
    entry(kUnaccounted, static_cast<uint64_t>(std::max<int64_t>(account.unaccountedBytes, 0)));
  });
  series.account = stacked(std::move(parts), maxLines, drawn.size());
  series.processes = largestOf(drawn, maxLines, [](const MemoryReport& report, const Entry& entry) {
    for (const MemoryProcess& process : report.processes) entry(process.name, process.footprintBytes);
  });
  series.zones = largestOf(drawn, maxLines, [](const MemoryReport& report, const Entry& entry) {
    for (const NamedBytes& zone : report.zones) entry(zone.name, zone.bytes);
  });
  return series;
}

}  // namespace quorvelctl
