#pragma once

#include <memory>
#include <vector>

#include "core/daemon_timers.h"
#include "core/message_dispatcher.h"
#include "core/preferences.h"
#include "platform/ipc.h"
#include "platform/notifications.h"
#include "platform/work_queue.h"

namespace quorveld {

/// The daemon from start-up to exit: owns the work queue and everything that runs on it. Made once, on the
/// main thread, with a platform installed that outlives it.
class Daemon {
 public:
  Daemon();
  ~Daemon();

  /// Brings the daemon up, in the order that its parts rely on.
  void start();

  /// Serves the work queue; returns the exit status, at once when the preferences turned every source off.
  int run();

 private:
  /// Reads the preferences and carries them into effect; false when that ends the daemon.
  bool refresh();
  void subscribe(const char* name, platform::Task handler);
  void startDisplayHistory();
  void displayStateChanged();
  void logStatus() const;

  // Order matters: the queue goes last, the listener first, so that nothing arrives for what has gone.
  std::unique_ptr<platform::MainQueue> workQueue_;
  std::unique_ptr<DaemonTimers> timers_;
  std::unique_ptr<Preferences> preferences_;
  MessageDispatcher dispatcher_;
  std::vector<std::unique_ptr<platform::Subscription>> subscriptions_;
  std::unique_ptr<platform::Subscription> displayStatus_;
  std::unique_ptr<platform::Listener> listener_;
};

}  // namespace quorveld
