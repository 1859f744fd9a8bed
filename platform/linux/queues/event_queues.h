#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/linux/queues/event_loop.h"
#include "platform/work_queue.h"

namespace quorveld::linux_platform {

/// A queue that is served by an EventLoop; `loopOf` finds it.
class EventQueue {
 public:
  virtual ~EventQueue() = default;
  virtual EventLoop& loop() = 0;
};

/// What the Linux services ask of the main queue beyond the interface.
class MainEventQueue : public platform::MainQueue, public EventQueue {
 public:
  /// Runs `task` on this queue at SIGTERM or SIGINT, in the order of registration, before the queue is quit
  /// with status 0. On this queue.
  virtual void onTermination(platform::Task task) = 0;
};

/// Holds back the signals that the main queue takes until it does. On the main thread, before any other.
void holdMainSignals();

/// Queues on sd-event: the main queue on the main thread, every other with a thread of its own. A queue other
/// than the main one is destroyed by another thread than its own, which it waits for.
///
/// The main queue takes SIGTERM, SIGINT, SIGUSR1 and SIGHUP (blocked from `createMain` on, so make it before
/// any other thread), feeds systemd's watchdog where the unit has one, and tells systemd READY=1 when it is
/// first served, RELOADING=1 and READY=1 around a reload, and STOPPING=1 when it is quit (sd_notify(3)).
class LinuxQueues final : public platform::Queues {
 public:
  /// `mainQueueMade` is called with the main queue once there is one: for services that run work of their own
  /// on it.
  explicit LinuxQueues(std::function<void(platform::WorkQueue&)> mainQueueMade = {})
      : mainQueueMade_(std::move(mainQueueMade)) {}

  std::unique_ptr<platform::MainQueue> createMain(std::string_view label, platform::QoSClass qos) override;
  std::unique_ptr<platform::WorkQueue> create(std::string_view label, platform::QoSClass qos) override;

 private:
  std::function<void(platform::WorkQueue&)> mainQueueMade_;
};

}  // namespace quorveld::linux_platform
