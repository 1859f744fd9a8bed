#include "kelvane/report/recorder_tracks.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string_view>

#include "kelvane/base/limits.h"
#include "kelvane/timeline/cpu_runs.h"

namespace kelvane {
namespace {

// Tracks that are no process's and no thread's: above every id that Linux hands out (at most 2^22).
constexpr int64_t kCpusTrack = 1 << 22;
constexpr int64_t kStatesTrack = (1 << 22) + 2;

/// The smallest of the `count` longest durations; 0 if there are no more than that.
uint64_t shortestOfLongest(std::vector<uint64_t> durations, size_t count) {
  if (durations.size() <= count) return 0;
  auto border = durations.begin() + static_cast<ptrdiff_t>(count) - 1;
  std::nth_element(durations.begin(), border, durations.end(), std::greater<>());
  return *border;
}

/// Opens an event and leaves it open for more members.
void beginEvent(JsonWriter& json, const char* phase, std::string_view name, int64_t pid, int64_t tid) {
  json.beginObject();
  json.member("ph", phase);
  json.member("name", name);
  json.member("pid", pid);
  json.member("tid", tid);
}

void writeName(JsonWriter& json, const char* what, int64_t pid, int64_t tid, const std::string& name) {
  beginEvent(json, "M", what, pid, tid);
  json.key("args");
  json.beginObject();
  json.member("name", std::string_view(name));
  json.endObject();
  json.endObject();
}

/// The interval ends a nanosecond early. Viewers add `dur` to `ts` in floating point; a sum that is rounded
/// up would lie in the next interval, and speedscope takes a whole track of such for one deep stack.
void writeTimes(JsonWriter& json, uint64_t fromNs, uint64_t toNs) {
  json.memberMicroseconds("ts", fromNs);
  json.memberMicroseconds("dur", toNs - fromNs - (toNs > fromNs ? 1 : 0));
}

void writeInstant(JsonWriter& json, std::string_view name, const char* category, int64_t pid, int64_t tid,
                  uint64_t atNs) {
  beginEvent(json, "i", name, pid, tid);
  json.member("cat", category);
  json.member("s", pid == kCpusTrack ? "g" : "t");
  json.memberMicroseconds("ts", atNs);
  json.endObject();
}

/// "Launch begin" for the daemon's mark "S|PID|Launch|ID" ('F': end); any other text as it is.
std::string markName(std::string_view text) {
  size_t pid = text.find('|');
  size_t name = pid == std::string_view::npos ? pid : text.find('|', pid + 1);
  size_t id = text.rfind('|');
  bool isInterval =
      pid == 1 && (text[0] == 'S' || text[0] == 'F') && name != std::string_view::npos && id > name;
  if (!isInterval) return std::string(text.substr(0, kMaxNameBytes));
  return std::string(text.substr(name + 1, id - name - 1)) + (text[0] == 'S' ? " begin" : " end");
}

}  // namespace

RecorderTracks::RecorderTracks(const Recording& recording, const ProcessCapture& process)
    : recording_(recording), process_(process) {
  std::vector<uint64_t> durations;
  visitCpuRuns(recording, [&](const CpuRun& run) {
    if (run.tid != 0) durations.push_back(run.toNs - run.fromNs);
  });
  size_t runs = durations.size();
  shortestRunNs_ = shortestOfLongest(std::move(durations), kMaxCpuRunsDrawn);
  leaveOut("CPU tracks", kMaxCpuRunsDrawn, runs);
  if (process.threads.empty() || recording.coveredFromNs >= recording.toNs) return;
  states_ = threadTimeline(recording, process.hungThread, process.threads.front().facts.state);
  durations.clear();
  for (const StateSpan& span : states_) durations.push_back(span.toNs - span.fromNs);
  size_t states = states_.size();
  uint64_t shortestNs = shortestOfLongest(std::move(durations), kMaxStatesDrawn);
  std::erase_if(states_, [&](const StateSpan& span) { return span.toNs - span.fromNs < shortestNs; });
  leaveOut("states of the hung thread", kMaxStatesDrawn, states);
}

void RecorderTracks::leaveOut(const char* what, size_t drawn, size_t all) {
  if (all <= drawn) return;
  omissions_.push_back(
      {what, "the longest " + std::to_string(drawn) + " of " + std::to_string(all) + " intervals are drawn"});
}

std::string RecorderTracks::nameOf(int32_t tid) const {
  auto name = recording_.threadNames.find(tid);
  return name == recording_.threadNames.end() ? "thread " + std::to_string(tid) : name->second;
}

std::string RecorderTracks::wakerName(const StateSpan& sleep) const {
  switch (sleep.end) {
    case SleepEnd::thread:
      return nameOf(sleep.wokenBy);
    case SleepEnd::timeOut:
      return "a time-out";
    case SleepEnd::disk:
      return "a disk request";
    case SleepEnd::interrupt:
    case SleepEnd::open:
      break;
  }
  return "an interrupt";
}

void RecorderTracks::writeEvents(JsonWriter& json) const {
  writeCpus(json);
  writeStates(json);
  writeMarks(json);
}

void RecorderTracks::writeCpus(JsonWriter& json) const {
  std::set<uint16_t> cpus;
  size_t drawn = 0;
  visitCpuRuns(recording_, [&](const CpuRun& run) {
    cpus.insert(run.cpu);
    // Several may be as short as the shortest.
    if (run.tid == 0 || run.toNs - run.fromNs < shortestRunNs_ || drawn == kMaxCpuRunsDrawn) return;
    drawn++;
    beginEvent(json, "X", nameOf(run.tid), kCpusTrack, run.cpu);
    json.member("cat", "cpu");
    writeTimes(json, run.fromNs, run.toNs);
    json.key("args");
    json.beginObject();
    json.member("tid", run.tid);
    json.endObject();
    json.endObject();
  });
  if (!cpus.empty()) writeName(json, "process_name", kCpusTrack, *cpus.begin(), "CPUs");
  for (uint16_t cpu : cpus) writeName(json, "thread_name", kCpusTrack, cpu, "CPU " + std::to_string(cpu));
}

void RecorderTracks::writeStates(JsonWriter& json) const {
  if (states_.empty()) return;
  int64_t pid = process_.pid;
  writeName(json, "thread_name", pid, kStatesTrack, process_.threads.front().facts.comm + " states");
  for (const StateSpan& span : states_) {
    beginEvent(json, "X", threadStateName(span.state), pid, kStatesTrack);
    json.member("cat", "state");
    writeTimes(json, span.fromNs, span.toNs);
    json.endObject();
    if (span.end == SleepEnd::open) continue;
    writeInstant(json, "woken by " + wakerName(span), "wakeup", pid, kStatesTrack, span.toNs);
    writeArrow(json, span);
  }
}

/// From the waker, on the CPU that it had, to the state that the sleeper went into.
void RecorderTracks::writeArrow(JsonWriter& json, const StateSpan& sleep) const {
  if (sleep.end != SleepEnd::thread) return;
  // The ends of one arrow share an id: the time of the wake-up, which no other of this thread has.
  const auto writeEnd = [&](const char* phase, int64_t pid, int64_t tid) {
    beginEvent(json, phase, "wakes", pid, tid);
    json.member("cat", "wakeup");
    json.member("id", sleep.toNs);
    if (*phase == 'f') json.member("bp", "e");  // to the interval around it, not to the next one
    json.memberMicroseconds("ts", sleep.toNs);
    json.endObject();
  };
  writeEnd("s", kCpusTrack, sleep.wokenOnCpu);
  writeEnd("f", process_.pid, kStatesTrack);
}

void RecorderTracks::writeMarks(JsonWriter& json) const {
  size_t drawn = 0;
  for (const RecordedEvent& event : recording_.events) {
    if (event.kind != RecordedKind::mark || event.value >= recording_.texts.size()) continue;
    if (drawn++ == kMaxMarksDrawn) return;
    writeInstant(json, markName(recording_.texts[event.value]), "signpost", kCpusTrack, event.cpu,
                 event.atNs);
  }
}

}  // namespace kelvane
