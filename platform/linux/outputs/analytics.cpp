#include "platform/linux/outputs/analytics.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/root_path.h"

namespace quorveld::linux_platform {

namespace {

constexpr std::chrono::seconds kWriteDelay(1);
constexpr char kSpool[] = "/var/root/Library/Caches/quorveld/spool";
constexpr char kLaunchLog[] = "/var/log/quorveld/activations.jsonl";
constexpr std::string_view kOtherKey = "(other)";

KeyLabels labelsOf(const platform::KeyOwner& owner) {
  const auto cut = [](std::string_view name) { return std::string(name.substr(0, kMaxAnalyticsKeyBytes)); };
  return {cut(owner.hang), cut(owner.bundle), cut(owner.process)};
}

uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

/// Looks at /proc and at folders: off the work queue.
OwnFigures ownFigures() {
  OwnFigures own;
  for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage usage{};
    ::getrusage(who, &usage);
    for (const timeval& time : {usage.ru_utime, usage.ru_stime})
      own.cpuSeconds += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  }
  uint64_t pages = 0, residentPages = 0;
  if (std::ifstream("/proc/self/statm") >> pages >> residentPages)
    own.residentBytes = residentPages * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  std::error_code error;
  for (std::filesystem::directory_iterator file(rooted(kSpool), error), end; !error && file != end;
       file.increment(error)) {
    ++own.spoolReports;
    own.spoolBytes += sizeOf(file->path());
  }
  own.launchLogBytes = sizeOf(rooted(kLaunchLog)) + sizeOf(rooted(kLaunchLog) + ".1");
  return own;
}

}  // namespace

LinuxAnalytics::~LinuxAnalytics() {
  if (dirty_ || lastWriteFailed_) (void)tryWrite();
}

void LinuxAnalytics::useQueue(platform::WorkQueue& queue) {
  queue_ = &queue;
  const char* target = std::getenv("QUORVELD_STATSD");
  if (target && *target) resolve(target);
  changed();  // the file still has the counts of the daemon before
}

void LinuxAnalytics::resolve(const std::string& target) {
  auto resolved = std::make_shared<Resolved>();
  const auto work = [resolved, target] {
    resolved->sender = StatsdSender(target, resolved->failure);
    return std::error_code();
  };
  const auto done = [resolved, target](std::error_code) {
    if (!resolved->failure.empty()) {
      logDefault("QUORVELD_STATSD=%s is not used: %s", target.c_str(), resolved->failure.c_str());
    }
    resolved->ready = true;
  };
  resolved_ = resolved;
  // A path takes no looking up.
  if (target.starts_with('/') || !resolver_.tryPost(work, done)) done(work());
}

StatsdSender& LinuxAnalytics::statsd() {
  if (resolved_ && resolved_->ready) {
    statsd_ = std::move(resolved_->sender);
    resolved_.reset();
  }
  return statsd_;
}

template <typename Value>
typename std::map<std::string, Value, std::less<>>::iterator LinuxAnalytics::entryFor(
    std::map<std::string, Value, std::less<>>& values, LabelsOfKeys& labels, AnalyticsKeys& keys,
    std::string_view key, platform::KeyOwner owner) {
  key = key.substr(0, kMaxAnalyticsKeyBytes);
  const auto [admitted, givenUp] = keys.admit(key, owner, std::chrono::steady_clock::now());
  if (!admitted || !givenUp.empty()) sayKeysAreFull();
  if (const auto old = values.find(givenUp); old != values.end()) {
    values[std::string(kOtherKey)] += old->second;
    values.erase(old);
    labels.erase(givenUp);
  }
  const auto [entry, isNew] = values.try_emplace(std::string(admitted ? key : kOtherKey));
  const bool holdsNames = !owner.hang.empty() || !owner.bundle.empty() || !owner.process.empty();
  // Other names can make up the same key: whoever comes later doesn't relabel a series.
  if (isNew && admitted && holdsNames) labels.try_emplace(entry->first, labelsOf(owner));
  return entry;
}

void LinuxAnalytics::setScalar(std::string_view key, int64_t value) {
  const std::string name(key.substr(0, kMaxAnalyticsKeyBytes));
  metrics_.scalars[name] = value;
  statsd().gauge(name, value);
  changed();
}

void LinuxAnalytics::addToScalar(std::string_view key, int64_t value, platform::KeyOwner owner) {
  if (value < 0) return;
  const auto entry = entryFor(metrics_.counters, metrics_.counterLabels, counterKeys_, key, owner);
  entry->second += static_cast<uint64_t>(value);
  statsd().counter(entry->first, value);
  changed();
}

void LinuxAnalytics::pushDistribution(std::string_view key, double value, platform::KeyOwner owner) {
  if (!std::isfinite(value)) return;
  const auto entry =
      entryFor(metrics_.distributions, metrics_.distributionLabels, distributionKeys_, key, owner);
  entry->second.add(value);
  statsd().timing(entry->first, value);
  changed();
}

void LinuxAnalytics::sayKeysAreFull() {
  if (saidKeysAreFull_) return;
  saidKeysAreFull_ = true;
  logDefault("Analytics: more than %zu keys, those of who has most are counted under %.*s", kMaxAnalyticsKeys,
             static_cast<int>(kOtherKey.size()), kOtherKey.data());
}

void LinuxAnalytics::changed() {
  dirty_ = true;
  if (writePending_ || !queue_) return;
  writePending_ = true;
  queue_->after(kWriteDelay, [weak = std::weak_ptr(self_)] {
    if (const std::shared_ptr<LinuxAnalytics*> self = weak.lock()) (*self)->write();
  });
}

void LinuxAnalytics::write() {
  writePending_ = false;
  // While the disk takes its time, what it will get next grows up to date.
  if (writer_.isIdle() && tryWrite()) {
    dirty_ = false;
  } else {
    changed();
  }
}

bool LinuxAnalytics::tryWrite() {
  return writer_.tryPost(
      [path = rooted("/var/lib/quorveld/quorveld.prom"), metrics = metrics_] {
        return replaceFile(path, prometheusText(metrics, ownFigures()), Durability::cached);
      },
      [this](std::error_code error) { written(error); });
}

/// On the writer's thread.
void LinuxAnalytics::written(std::error_code error) {
  if (error && !lastWriteFailed_) logDefault("Can't write the analytics file: %s", error.message().c_str());
  lastWriteFailed_ = static_cast<bool>(error);
}

}  // namespace quorveld::linux_platform
