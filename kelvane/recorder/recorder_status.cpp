#include "kelvane/recorder/recorder_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "kelvane/base/limits.h"
#include "kelvane/recording/kernel_view.h"
#include "kelvane/recording/page_drain.h"
#include "kelvane/recording/recorder_folder.h"
#include "kelvane/recording/recording.h"

namespace kelvane {
namespace {

constexpr double kNsPerSecond = 1e9;
/// What recording costs its CPU for each event, ns: measured on a load of switches alone (bench/recorder).
constexpr double kEventCostNs = 420;

uint64_t countAfter(std::string_view text, std::string_view name) {
  const size_t at = text.find(name);
  // "overrun: " is at the end of "commit overrun: " too.
  if (at == std::string_view::npos || (at > 0 && text[at - 1] != '\n')) return 0;
  uint64_t count = 0;
  std::from_chars(text.data() + at + name.size(), text.data() + text.size(), count);
  return count;
}

/// Adds up what the CPUs of the instance say.
void addBuffers(int instance, const RecorderFolder& folder, RecorderStatus& status) {
  uint64_t entries = 0;
  uint64_t bytes = 0;
  const long cpus = sysconf(_SC_NPROCESSORS_CONF);
  for (unsigned cpu = 0; static_cast<long>(cpu) < cpus; ++cpu) {
    const std::string path = "per_cpu/cpu" + std::to_string(cpu) + "/stats";
    const FileText file = readFileAt(instance, path.c_str(), kMaxProcFileBytes);
    if (file.error) continue;
    const BufferStats stats = parseBufferStats(file.text);
    entries += stats.entries;
    bytes += stats.bytes;
    status.lostEvents += stats.lost;
    status.bufferKb = std::max(status.bufferKb, readBufferKb(instance, cpu));
    ++status.cpus;
    struct stat kept {};
    if (fstatat(folder.fd(), ("cpu" + std::to_string(cpu)).c_str(), &kept, AT_SYMLINK_NOFOLLOW) == 0) {
      status.keptBytes += static_cast<uint64_t>(kept.st_blocks) * 512;
    }
  }
  if (entries > 0) status.bytesPerEvent = static_cast<double>(bytes) / static_cast<double>(entries);
}

std::string seconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", value);
  return text;
}

}  // namespace

BufferStats parseBufferStats(std::string_view text) {
  BufferStats stats;
  stats.entries = countAfter(text, "entries: ");
  stats.bytes = countAfter(text, "bytes: ");
  stats.lost = countAfter(text, "commit overrun: ") + countAfter(text, "dropped events: ");
  return stats;
}

double RecorderStatus::bufferHoldsSeconds() const {
  const double bytesPerSecond = eventsPerSecond * bytesPerEvent;
  return bytesPerSecond > 0 ? static_cast<double>(bufferKb * 1024 * cpus) / bytesPerSecond : 0;
}

double RecorderStatus::overheadPercent() const {
  return cpus > 0 ? eventsPerSecond * kEventCostNs / kNsPerSecond / static_cast<double>(cpus) * 100 : 0;
}

RecorderStatus readRecorderStatus(const Deadline& deadline) {
  RecorderStatus status;
  const uint64_t nowNs = monotonicNs();
  std::string error;
  if (const auto folder = RecorderFolder::open(deadline, error)) {
    const UniqueFd instance = folder->openInstance();
    status.running = static_cast<bool>(instance);
    status.known = status.running || errno == ENOENT;
    if (status.running) {
      status.instance = folder->instancePath();
      const uint64_t kernelNowNs = kernelNs();
      status.runningForNs = kernelNowNs - std::min(kernelNowNs, folder->startedNs().value_or(kernelNowNs));
      addBuffers(instance.get(), *folder, status);
    }
  } else {
    status.known = error == kRecorderNotRunning;
  }
  const auto reach = static_cast<uint64_t>(std::chrono::nanoseconds(kKeepPagesFor).count());
  const Recording recording = readRecording(nowNs - std::min(nowNs, reach), nowNs, deadline);
  status.leftOut = recording.omissions;
  status.coveredNs = std::min(recording.toNs - recording.coveredFromNs, status.runningForNs);
  if (status.coveredNs > 0) {
    const auto covered =
        std::count_if(recording.events.begin(), recording.events.end(),
                      [&](const auto& event) { return event.atNs >= recording.coveredFromNs; });
    status.eventsPerSecond =
        static_cast<double>(covered) * kNsPerSecond / static_cast<double>(status.coveredNs);
  }
  return status;
}

std::string statusText(const RecorderStatus& status) {
  std::string text;
  char line[256];
  const auto add = [&](const char* what, const std::string& value) {
    std::snprintf(line, sizeof line, "%-14s %s\n", what, value.c_str());
    text += line;
  };
  if (status.running) {
    const auto rounded = [](double value) { return std::to_string(std::llround(value)); };
    add("recording",
        "for " + seconds(static_cast<double>(status.runningForNs) / kNsPerSecond) + " in " + status.instance);
    add("covered", "the last " + seconds(static_cast<double>(status.coveredNs) / kNsPerSecond));
    add("buffer", std::to_string(status.bufferKb) + " KB for each of " + std::to_string(status.cpus) +
                      " CPUs" +
                      (status.bufferHoldsSeconds() > 0
                           ? ", about " + seconds(status.bufferHoldsSeconds()) + " at this rate"
                           : ""));
    add("kept", std::to_string(status.keptBytes / 1024) + " KB were read before");
    add("events", rounded(status.eventsPerSecond) + " a second" +
                      (status.bytesPerEvent > 0 ? ", " + rounded(status.bytesPerEvent) + " bytes each" : ""));
    add("lost", std::to_string(status.lostEvents) + " events");
    std::snprintf(line, sizeof line, "%.2f %% of all CPUs' time, estimated", status.overheadPercent());
    add("overhead", std::string(line));
  }
  for (const Omission& omission : status.leftOut) text += omission.what + ": " + omission.why + "\n";
  return text;
}

std::string statusJson(const RecorderStatus& status) {
  nlohmann::ordered_json leftOut = nlohmann::ordered_json::array();
  for (const Omission& omission : status.leftOut)
    leftOut.push_back({{"what", omission.what}, {"why", omission.why}});
  nlohmann::ordered_json json;
  json["running"] =
      status.known ? nlohmann::ordered_json(status.running) : nullptr;  // null: it can't be told
  if (status.running) {
    json.update({{"instance", status.instance},
                 {"runningForSeconds", static_cast<double>(status.runningForNs) / kNsPerSecond},
                 {"coveredSeconds", static_cast<double>(status.coveredNs) / kNsPerSecond},
                 {"cpus", status.cpus},
                 {"bufferKbPerCpu", status.bufferKb},
                 {"bufferHoldsSeconds", status.bufferHoldsSeconds()},
                 {"keptBytes", status.keptBytes},
                 {"eventsPerSecond", status.eventsPerSecond},
                 {"bytesPerEvent", status.bytesPerEvent},
                 {"eventsLost", status.lostEvents},
                 {"overheadPercent", status.overheadPercent()}});
  }
  json["leftOut"] = leftOut;
  return json.dump(2) + "\n";
}

}  // namespace kelvane
