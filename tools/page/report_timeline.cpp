#include "tools/page/report_timeline.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <set>

#include "tools/report/json_access.h"

namespace quorvelctl {
namespace {

/// Where a report keeps the hung thread's states: above every thread id that Linux hands out.
constexpr int64_t kStatesTrack = (1 << 22) + 2;

constexpr size_t kMaxCpus = 128;
/// Of all tracks together. A screen has some thousand columns; the rest is for looking closer.
constexpr size_t kMaxItems = 32'000;
/// By how much columns widen until their items are few enough.
constexpr double kCoarser = 1.25;

using Events = std::vector<const TraceEvent*>;

/// Calls `use` with the first and one past the last of each run of neighbours that are drawn as one at a
/// resolution of `columnUs`: short ones that begin in the same column. With 0 every event stands alone.
template <typename Use>
void forEachRun(const Events& events, double columnUs, Use use) {
  for (auto first = events.begin(); first != events.end();) {
    auto last = first + 1;
    if ((*first)->durationUs < columnUs) {
      const double column = std::floor((*first)->startUs / columnUs);
      while (last != events.end() && (*last)->durationUs < columnUs &&
             std::floor((*last)->startUs / columnUs) == column) {
        ++last;
      }
    }
    use(first, last);
    first = last;
  }
}

class Builder {
 public:
  explicit Builder(const Report& report)
      : trace_(report.trace),
        header_(report.header),
        wasSampled_(report.sampled.durationMs > 0),
        originUs_(originOf(report)),
        hungThread_(report.header.threadId) {
    for (const ReportThread& thread : report.threads) {
      if (thread.pid == 0) ownThreads_.insert(thread.tid);
    }
    if (report.launch) {
      hungThread_ = report.launch->followed.tid;
      for (const auto& process : report.launch->processes) ownThreads_.insert(process.pid);
    }
    timeline_.hangUs = std::max(0.0, header_.durationMs() * 1000);
    timeline_.lookedUs =
        report.lookedAtUs > 0 ? report.lookedAtUs - originUs_ : std::numeric_limits<double>::quiet_NaN();
  }

  Timeline build() {
    sortOut();
    const char* whose = header_.pid == 0 ? "Launching thread" : "Hung thread";
    addTrack(timeline_.statesOfLook ? "Hung (one look)" : whose, "state", states_, kMaxItems / 8);
    addTrack("Woken", "wakeup", wakeups_, kMaxItems / 16);
    addTrack("Marks", "signpost", signposts_, kMaxItems / 16);
    const size_t perCpu = kMaxItems * 3 / 4 / std::max<size_t>(cpus_.size(), 1);
    for (auto& [cpu, events] : cpus_) addTrack("CPU " + std::to_string(cpu), "cpu", events, perCpu);
    return std::move(timeline_);
  }

 private:
  /// Of a trace without a hang, the first event.
  static double originOf(const Report& report) {
    if (report.header.hasHang()) return static_cast<double>(report.header.startTicks) / kTicksPerUs;
    const auto& events = report.trace.events;
    const auto first = std::min_element(events.begin(), events.end(),
                                        [](const auto& a, const auto& b) { return a.startUs < b.startUs; });
    return first == events.end() ? 0 : first->startUs;
  }

  /// Puts each event that is drawn to its track, and finds the span of them all.
  void sortOut() {
    Events looks;
    double from = originUs_;
    double to = originUs_ + timeline_.hangUs;
    for (const TraceEvent& event : trace_.events) {
      Events* track = trackOf(event, looks);
      if (!track) continue;
      track->push_back(&event);
      from = std::min(from, event.startUs);
      to = std::max(to, event.startUs + event.durationUs);
    }
    // Samples, which the page draws by themselves, tell what one look does not.
    if (states_.empty() && !wasSampled_) {
      timeline_.statesOfLook = !looks.empty();
      states_ = std::move(looks);
    }
    timeline_.fromUs = from - originUs_;
    timeline_.toUs = to - originUs_;
  }

  /// Null for an event that isn't drawn.
  Events* trackOf(const TraceEvent& event, Events& looks) {
    switch (event.kind) {
      case TraceEvent::Kind::cpu: {
        const auto cpu = cpus_.find(event.track);
        if (cpu != cpus_.end()) return &cpu->second;
        if (cpus_.size() < kMaxCpus) return &cpus_[event.track];
        hiddenCpus_.insert(event.track);
        timeline_.hiddenCpus = hiddenCpus_.size();
        return nullptr;
      }
      case TraceEvent::Kind::state:
        if (event.track == kStatesTrack) return &states_;
        return event.track == hungThread_ ? &looks : nullptr;
      case TraceEvent::Kind::wakeup:
        return &wakeups_;
      case TraceEvent::Kind::signpost:
        return &signposts_;
      case TraceEvent::Kind::hang:
        return nullptr;  // the header says it
    }
    return nullptr;
  }

  void addTrack(std::string name, std::string kind, Events& events, size_t maxItems) {
    if (events.empty()) return;
    std::sort(events.begin(), events.end(),
              [](const TraceEvent* a, const TraceEvent* b) { return a->startUs < b->startUs; });
    double columnUs = 0;
    while (countItems(events, columnUs) > maxItems) {
      const double finestUs = (timeline_.toUs - timeline_.fromUs) / static_cast<double>(2 * maxItems);
      columnUs = std::max({columnUs * kCoarser, finestUs, 1.0});
    }
    Timeline::Track track{std::move(name), std::move(kind), {}};
    forEachRun(events, columnUs, [&](auto first, auto last) { track.items.push_back(itemOf(first, last)); });
    timeline_.events += events.size();
    timeline_.tracks.push_back(std::move(track));
  }

  static size_t countItems(const Events& events, double columnUs) {
    size_t items = 0;
    forEachRun(events, columnUs, [&](auto, auto) { ++items; });
    return items;
  }

  Timeline::Item itemOf(Events::const_iterator first, Events::const_iterator last) {
    std::map<uint32_t, double> timeOf;
    double end = (*first)->startUs;
    double busy = 0;
    for (auto event = first; event != last; ++event) {
      const double duration = (*event)->durationUs;
      const uint32_t label = labelOf(**event);
      timeline_.labels[label].totalUs += duration;
      timeOf[label] += duration;
      busy += duration;
      end = std::max(end, (*event)->startUs + duration);
    }
    const auto most = std::max_element(timeOf.begin(), timeOf.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    const double start = (*first)->startUs;
    return {start - originUs_, end - start, busy, most->first, static_cast<uint32_t>(last - first)};
  }

  uint32_t labelOf(const TraceEvent& event) {
    const bool isCpu = event.kind == TraceEvent::Kind::cpu;
    const int64_t tid = isCpu ? event.tid : 0;
    const auto [known, isNew] =
        labelIndexes_.try_emplace({tid, isCpu, event.text}, static_cast<uint32_t>(timeline_.labels.size()));
    if (isNew) {
      const char* owner = !isCpu                      ? ""
                          : tid == hungThread_        ? "hung"
                          : ownThreads_.contains(tid) ? "own"
                                                      : "other";
      timeline_.labels.push_back({trace_.texts[event.text], tid, owner});
    }
    return known->second;
  }

  const Trace& trace_;
  const ReportHeader& header_;
  bool wasSampled_;
  double originUs_;
  int64_t hungThread_;
  std::set<int64_t> ownThreads_;
  std::map<int64_t, Events> cpus_;
  std::set<int64_t> hiddenCpus_;
  Events states_;
  Events wakeups_;
  Events signposts_;
  std::map<std::tuple<int64_t, bool, uint32_t>, uint32_t> labelIndexes_;
  Timeline timeline_;
};

int64_t rounded(double value) {
  return std::llround(value);
}

}  // namespace

Timeline timelineOf(const Report& report) {
  return Builder(report).build();
}

std::string timelineJson(const Timeline& timeline) {
  Json labels = Json::array();
  for (const Timeline::Label& label : timeline.labels) {
    labels.push_back({label.text, label.tid, label.owner, rounded(label.totalUs)});
  }
  Json tracks = Json::array();
  for (const Timeline::Track& track : timeline.tracks) {
    Json items = Json::array();
    for (const Timeline::Item& item : track.items) {
      Json entry{rounded(item.startUs), rounded(item.durationUs), item.label};
      if (item.count > 1) {
        entry.push_back(item.count);
        entry.push_back(rounded(item.busyUs));
      }
      items.push_back(std::move(entry));
    }
    tracks.push_back({{"name", track.name}, {"kind", track.kind}, {"items", std::move(items)}});
  }
  Json json{{"from", rounded(timeline.fromUs)},
            {"to", rounded(timeline.toUs)},
            {"hang", rounded(timeline.hangUs)},
            {"labels", std::move(labels)},
            {"tracks", std::move(tracks)}};
  if (!std::isnan(timeline.lookedUs)) json["looked"] = rounded(timeline.lookedUs);
  return json.dump();
}

}  // namespace quorvelctl
