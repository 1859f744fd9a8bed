#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "platform/clock.h"

namespace quorveld::platform {

/// What a queue runs. A task captures by value: it may run after its maker's frame has gone.
using Task = std::function<void()>;

enum class QoSClass : uint32_t { utility = 17, userInitiated = 25 };

/// When a repeating timer fires: `start` from now, then every `period`, each up to `leeway` late.
struct TimerSchedule {
  std::chrono::nanoseconds start;
  std::chrono::nanoseconds period;
  std::chrono::nanoseconds leeway;
};

/// A repeating timer. Destroying it cancels it: its task never runs again. Made, re-armed and destroyed on
/// its queue.
class Timer {
 public:
  virtual ~Timer() = default;

  /// Replaces the schedule, counted from now.
  virtual void rearm(const TimerSchedule& schedule) = 0;
};

/// A serial queue: its tasks run one after another, in the order in which they became due.
class WorkQueue {
 public:
  virtual ~WorkQueue() = default;

  virtual std::string_view label() const = 0;

  /// Runs `task` on this queue as soon as what is before it has run. From any thread.
  virtual void async(Task task) = 0;

  /// Runs `task` once, `delay` from now on the monotonic clock. From any thread.
  virtual void after(std::chrono::nanoseconds delay, Task task) = 0;

  /// Runs `task` once, as soon as the wall clock reads `deadline` or later: a clock that is set moves it.
  /// From any thread.
  virtual void atWallTime(WallTime deadline, Task task) = 0;

  /// Starts a repeating timer, owned by the caller. On this queue, or before its first task has run.
  [[nodiscard]] virtual std::unique_ptr<Timer> repeat(const TimerSchedule& schedule, Task task) = 0;

  /// True on the thread that is running this queue's tasks (and, for the main queue, on the main thread).
  virtual bool isCurrent() const = 0;

  /// Aborts with a message when `isCurrent` is false: state that belongs to this queue was touched from
  /// elsewhere.
  void assertCurrent() const;
};

/// The work queue that the main thread serves.
class MainQueue : public WorkQueue {
 public:
  /// Serves the queue on the calling (main) thread until `quit`; returns the status given there.
  [[nodiscard]] virtual int run() = 0;

  /// Ends `run` once the task at hand has returned; called before `run`, it makes `run` return at once. On
  /// this queue.
  virtual void quit(int status) = 0;

  /// Runs `task` on this queue whenever somebody asks the process for its state (on Linux: SIGUSR1).
  virtual void onStatusRequest(Task task) = 0;

  /// Runs `task` on this queue whenever somebody asks the process to read its configuration again (on Linux:
  /// SIGHUP).
  virtual void onReloadRequest(Task task) = 0;
};

class Queues {
 public:
  virtual ~Queues() = default;

  /// The main queue; made once.
  [[nodiscard]] virtual std::unique_ptr<MainQueue> createMain(std::string_view label, QoSClass qos) = 0;

  /// Another queue, with a thread of its own, which ends with the queue. Tasks not yet begun are dropped
  /// then.
  [[nodiscard]] virtual std::unique_ptr<WorkQueue> create(std::string_view label, QoSClass qos) = 0;
};

}  // namespace quorveld::platform
