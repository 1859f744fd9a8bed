#include "platform/linux/outputs/analytics.h"

#include <chrono>
#include <cmath>
#include <cstdlib>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/root_path.h"

namespace quorveld::linux_platform {

namespace {

constexpr std::chrono::seconds kFlushDelay(1);
constexpr std::string_view kOtherKey = "(other)";

}  // namespace

void LinuxAnalytics::useQueue(platform::WorkQueue& queue) {
  queue_ = &queue;
  const char* target = std::getenv("QUORVELD_STATSD");
  if (target && *target) statsd_ = StatsdSender(target);
  changed();  // the file still has the counts of the daemon before
}

template <typename Value>
typename std::map<std::string, Value, std::less<>>::iterator LinuxAnalytics::entryFor(
    std::map<std::string, Value, std::less<>>& values, std::string_view key) {
  key = key.substr(0, kMaxAnalyticsKeyBytes);
  if (values.size() >= kMaxAnalyticsKeys && !values.contains(key)) {
    sayKeysAreFull();
    key = kOtherKey;
  }
  return values.try_emplace(std::string(key)).first;
}

void LinuxAnalytics::setScalar(std::string_view key, int64_t value) {
  const auto entry = entryFor(metrics_.scalars, key);
  entry->second = value;
  statsd_.gauge(entry->first, value);
  changed();
}

void LinuxAnalytics::addToScalar(std::string_view key, int64_t value) {
  if (value < 0) return;
  const auto entry = entryFor(metrics_.counters, key);
  entry->second += static_cast<uint64_t>(value);
  statsd_.counter(entry->first, value);
  changed();
}

void LinuxAnalytics::pushDistribution(std::string_view key, double value) {
  if (!std::isfinite(value)) return;
  const auto entry = entryFor(metrics_.distributions, key);
  entry->second.add(value);
  statsd_.timing(entry->first, value);
  changed();
}

void LinuxAnalytics::sayKeysAreFull() {
  if (saidKeysAreFull_) return;
  saidKeysAreFull_ = true;
  logDefault("Analytics: more than %zu keys, further ones are counted under %.*s", kMaxAnalyticsKeys,
             static_cast<int>(kOtherKey.size()), kOtherKey.data());
}

void LinuxAnalytics::changed() {
  dirty_ = true;
  if (flushPending_ || !queue_) return;
  flushPending_ = true;
  queue_->after(kFlushDelay, [weak = std::weak_ptr(self_)] {
    if (const std::shared_ptr<LinuxAnalytics*> self = weak.lock()) (*self)->flushNow();
  });
}

void LinuxAnalytics::flushNow() {
  flushPending_ = false;
  const std::error_code error = flush();
  if (error && !saidWriteFailed_) logDefault("Can't write the analytics file: %s", error.message().c_str());
  saidWriteFailed_ = static_cast<bool>(error);
}

std::error_code LinuxAnalytics::flush() {
  if (!dirty_) return {};
  const std::string path = rooted("/var/lib/quorveld/quorveld.prom");
  const std::error_code error = replaceFile(path, prometheusText(metrics_), Durability::cached);
  dirty_ = static_cast<bool>(error);
  return error;
}

}  // namespace quorveld::linux_platform
