#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/analytics.h"
#include "platform/linux/base/background_thread.h"
#include "platform/linux/outputs/analytics_keys.h"
#include "platform/linux/outputs/prometheus_text.h"
#include "platform/linux/outputs/statsd.h"
#include "platform/work_queue.h"

namespace quorveld::linux_platform {

/// A key is cut off behind so many bytes.
inline constexpr size_t kMaxAnalyticsKeyBytes = 200;

/// Analytics as a Prometheus text file, /var/lib/quorveld/quorveld.prom below the instance's root, and as
/// StatsD datagrams to where QUORVELD_STATSD says. Work queue only.
///
/// The file is replaced once there is a queue, and then at most once a second and only after a change, on a
/// thread of its own; the last state is written on destruction, if the disk takes it within two seconds.
class LinuxAnalytics final : public platform::Analytics {
 public:
  LinuxAnalytics() : self_(std::make_shared<LinuxAnalytics*>(this)) {}
  ~LinuxAnalytics() override;
  LinuxAnalytics(const LinuxAnalytics&) = delete;
  LinuxAnalytics& operator=(const LinuxAnalytics&) = delete;

  /// The queue that all calls come from; it runs the delayed writing. Has the StatsD address looked up as
  /// well: until a host is known, nothing is sent there. Before there is only the writing on destruction.
  void useQueue(platform::WorkQueue& queue);

  void setScalar(std::string_view key, int64_t value) override;

  /// A counter only grows: a negative amount counts nothing.
  void addToScalar(std::string_view key, int64_t value, platform::KeyOwner owner) override;

  /// A value that is infinite or no number counts nothing.
  void pushDistribution(std::string_view key, double value, platform::KeyOwner owner) override;

 private:
  /// A StatsD address on its way from the resolver's thread.
  struct Resolved {
    StatsdSender sender;
    std::string failure;
    std::atomic<bool> ready{false};
  };

  template <typename Value>
  typename std::map<std::string, Value, std::less<>>::iterator entryFor(
      std::map<std::string, Value, std::less<>>& values, LabelsOfKeys& labels, AnalyticsKeys& keys,
      std::string_view key, platform::KeyOwner owner);
  void sayKeysAreFull();
  StatsdSender& statsd();
  void resolve(const std::string& target);
  void changed();
  void write();
  [[nodiscard]] bool tryWrite();
  void written(std::error_code error);

  Metrics metrics_;
  AnalyticsKeys counterKeys_;
  AnalyticsKeys distributionKeys_;
  StatsdSender statsd_;
  std::shared_ptr<Resolved> resolved_;  // null: nothing is looked up
  platform::WorkQueue* queue_ = nullptr;
  bool dirty_ = false;
  bool writePending_ = false;
  bool saidKeysAreFull_ = false;
  std::atomic<bool> lastWriteFailed_{false};
  std::shared_ptr<LinuxAnalytics*> self_;  // what a delayed writing holds weakly

  // Last, so that they end first: what they call uses the above. Of the writer's jobs one is under way, and
  // at the end another one waits.
  BackgroundThread resolver_{"quorveld-statsd", 1, std::chrono::milliseconds(0)};
  BackgroundThread writer_{"quorveld-metrics", 2, std::chrono::seconds(2)};
};

}  // namespace quorveld::linux_platform
