#include "platform/linux/analytics.h"

#include <chrono>
#include <cmath>
#include <cstdlib>

#include "platform/linux/file_bytes.h"
#include "platform/linux/linux_log.h"
#include "platform/linux/root_path.h"

namespace quorveld::linux_platform {

namespace {

constexpr std::chrono::seconds kFlushDelay(1);
constexpr std::string_view kOtherKey = "(other)";

std::string_view statsdTarget() {
  const char* target = std::getenv("QUORVELD_STATSD");
  return target ? target : "";
}

}  // namespace

LinuxAnalytics::LinuxAnalytics() : statsd_(statsdTarget()), self_(std::make_shared<LinuxAnalytics*>(this)) {}

LinuxAnalytics::~LinuxAnalytics() {
  flush();
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
    const std::shared_ptr<LinuxAnalytics*> self = weak.lock();
    if (!self) return;
    (*self)->flushPending_ = false;
    (*self)->flush();
  });
}

void LinuxAnalytics::flush() {
  if (!dirty_) return;
  dirty_ = false;
  const std::string path = rooted("/var/lib/quorveld/quorveld.prom");
  const std::error_code error = replaceFile(path, prometheusText(metrics_), Durability::cached);
  if (error && !saidWriteFailed_) logDefault("Can't write %s: %s", path.c_str(), error.message().c_str());
  saidWriteFailed_ = static_cast<bool>(error);
}

}  // namespace quorveld::linux_platform
