#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/analytics.h"
#include "platform/linux/outputs/prometheus_text.h"
#include "platform/linux/outputs/statsd.h"
#include "platform/work_queue.h"

namespace quorveld::linux_platform {

/// How many keys each of scalars, counters and distributions may have; what comes under further ones is put
/// under "(other)". Keys hold clients' texts.
inline constexpr size_t kMaxAnalyticsKeys = 256;

/// A key is cut off behind so many bytes.
inline constexpr size_t kMaxAnalyticsKeyBytes = 200;

/// Analytics as a Prometheus text file, /var/lib/quorveld/quorveld.prom below the instance's root, and as
/// StatsD datagrams to where QUORVELD_STATSD says. Work queue only.
///
/// The file is replaced once there is a queue, and then at most once a second and only after a change; the
/// last state is written on destruction.
class LinuxAnalytics final : public platform::Analytics {
 public:
  LinuxAnalytics() : self_(std::make_shared<LinuxAnalytics*>(this)) {}
  ~LinuxAnalytics() override { (void)flush(); }  // no one is left to hear of a failure
  LinuxAnalytics(const LinuxAnalytics&) = delete;
  LinuxAnalytics& operator=(const LinuxAnalytics&) = delete;

  /// The queue that all calls come from; it runs the delayed writing. Opens the StatsD socket as well, which
  /// waits for the resolver when that is named by a host. Until then there is only the writing on
  /// destruction.
  void useQueue(platform::WorkQueue& queue);

  void setScalar(std::string_view key, int64_t value) override;

  /// A counter only grows: a negative amount counts nothing.
  void addToScalar(std::string_view key, int64_t value) override;

  /// A value that is infinite or no number counts nothing.
  void pushDistribution(std::string_view key, double value) override;

 private:
  template <typename Value>
  typename std::map<std::string, Value, std::less<>>::iterator entryFor(
      std::map<std::string, Value, std::less<>>& values, std::string_view key);
  void sayKeysAreFull();
  void changed();
  void flushNow();
  [[nodiscard]] std::error_code flush();

  Metrics metrics_;
  StatsdSender statsd_;
  platform::WorkQueue* queue_ = nullptr;
  bool dirty_ = false;
  bool flushPending_ = false;
  bool saidKeysAreFull_ = false;
  bool saidWriteFailed_ = false;
  std::shared_ptr<LinuxAnalytics*> self_;  // what a delayed writing holds weakly
};

}  // namespace quorveld::linux_platform
