#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/work_queue.h"
#include "tests/sim/fault_plan.h"

namespace quorveld::sim {

/// Clocks that stand still until somebody moves them: 24 MHz ticks since `uptime` 0, timebase 125/3.
class SimClock final : public platform::Clock {
 public:
  explicit SimClock(FaultPlan& faults) : faults_(faults) {}

  uint64_t absoluteTime() override { return ticks(uptime); }
  platform::Timebase timebase() override { return {125, 3}; }
  uint64_t timeSinceBoot() override { return ticks(uptime); }
  platform::WallTime wallTime() override { return bootedAt + uptime; }
  std::optional<int64_t> bootTimeSeconds() override {
    if (faults_.fails(Op::bootTime)) return std::nullopt;
    return std::chrono::floor<std::chrono::seconds>(bootedAt.time_since_epoch()).count();
  }

  static uint64_t ticks(std::chrono::nanoseconds time) {
    return static_cast<uint64_t>(time.count()) * 3 / 125;
  }

  std::chrono::nanoseconds uptime = std::chrono::seconds(100);
  /// What the wall clock read, as it is set now, when `uptime` was 0. 2026-01-15 10:00:00 UTC less the
  /// uptime.
  platform::WallTime bootedAt{std::chrono::seconds(1'768'471'200 - 100)};

 private:
  FaultPlan& faults_;
};

struct Lane;  // one queue's tasks and deadlines

/// Queues that run on the test's thread, only while the test lets time pass.
///
/// Within a queue, tasks run in the order in which they became due. Which of several ready queues goes next
/// is drawn from the seed, so that nothing comes to depend on an order across queues.
class SimQueues final : public platform::Queues {
 public:
  SimQueues(SimClock& clock, std::mt19937_64& random) : clock_(clock), random_(random) {}
  ~SimQueues() override;

  std::unique_ptr<platform::MainQueue> createMain(std::string_view label, platform::QoSClass qos) override;
  std::unique_ptr<platform::WorkQueue> create(std::string_view label, platform::QoSClass qos) override;

  /// Runs what is ready, then what becomes due within `time`, each at its own moment.
  void advance(std::chrono::nanoseconds time);

  /// Runs what is ready now.
  void settle();

  /// Sets the wall clock; deadlines on it move along.
  void setWallTime(platform::WallTime time) { clock_.bootedAt = time - clock_.uptime; }

  /// What SIGUSR1 does on Linux.
  void requestStatus();

  /// What SIGHUP does on Linux.
  void requestReload();

  /// The status that the main queue was quit with, if it was. Its tasks don't run from then on.
  std::optional<int> exitStatus() const;

  struct Made {
    std::string label;
    platform::QoSClass qos;
  };
  /// Every queue ever made, in order.
  const std::vector<Made>& made() const { return made_; }

  /// Lets repeating timers be late by a share of their leeway, drawn from the seed.
  bool lateTimers = false;

 private:
  template <typename Base>
  friend class SimQueue;
  friend class SimTimer;
  friend class SimMainQueue;

  std::shared_ptr<Lane> addLane(std::string_view label, platform::QoSClass qos);
  bool runOne();
  std::optional<std::chrono::nanoseconds> nextDue() const;
  void collectDue();
  std::chrono::nanoseconds lateness(const platform::TimerSchedule& schedule);
  /// Serves the queues until the main one is quit; time jumps from deadline to deadline.
  int serve(const Lane& main);

  SimClock& clock_;
  std::mt19937_64& random_;
  std::vector<std::shared_ptr<Lane>> lanes_;
  std::shared_ptr<Lane> main_;
  const Lane* running_ = nullptr;
  uint64_t nextOrder_ = 0;
  std::vector<Made> made_;
};

}  // namespace quorveld::sim
