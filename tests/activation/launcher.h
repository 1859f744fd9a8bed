#pragma once

#include <string>

#include "base/wall_time.h"
#include "tests/sim/world.h"

namespace quorveld::sim {

enum class Shown { background = 0, foreground = 1 };

/// A daemon with activation logging on, and the launcher that announces activations to it.
class LauncherWorld : public World {
 public:
  LauncherWorld() : World(Daemon::later) {
    preferences.userSets("QuorvelEnableAppActivationLogging", true, "com.corvix.quorvel");
    preferences.userSets("QuorvelEnabled", true);
    preferences.userSets("QuorvelEnableKelvane", true);
  }

  /// Starts the daemon with what the scenario has prepared.
  void begin() {
    start();
    launcher_ = std::make_unique<App>(startApp("launcher"));
    logs.clear();
  }

  uint64_t nowMs() { return activationTimeMs(clock.wallTime()); }

  /// A time of 0 is sent as it is; the launch proxy stamped `latency` ago.
  void beginActivation(int64_t pid, const std::string& bundleID, Shown state = Shown::foreground,
                       int64_t type = 1, std::optional<uint64_t> startMs = {},
                       std::chrono::milliseconds latency = {}) {
    launcher_->send({{"command", 4},
                     {"pid", pid},
                     {"bundle-id", bundleID},
                     {"startTime", startMs.value_or(nowMs())},
                     {"ipxStartLatency", nowMs() - static_cast<uint64_t>(latency.count())},
                     {"app-activation-state", static_cast<int64_t>(state)},
                     {"app-activation-type", type}});
  }

  void endActivation(int64_t pid, const std::string& bundleID, Shown state = Shown::foreground,
                     int64_t result = 0, std::optional<uint64_t> endMs = {}) {
    launcher_->send({{"command", 5},
                     {"pid", pid},
                     {"bundle-id", bundleID},
                     {"endTime", endMs.value_or(nowMs())},
                     {"app-activation-state", static_cast<int64_t>(state)},
                     {"app-activation-result", result}});
  }

  /// A whole activation of `duration`.
  void activate(int64_t pid, const std::string& bundleID, std::chrono::milliseconds duration) {
    beginActivation(pid, bundleID);
    advance(duration);
    endActivation(pid, bundleID);
  }

  /// The value of `key` in the last event's activation data.
  platform::Value reported(const std::string& key) const {
    for (const auto& [name, value] : powerLog.events.back().activationData) {
      if (name == key) return value;
    }
    return {std::string("(absent)")};
  }

 private:
  std::unique_ptr<App> launcher_;
};

}  // namespace quorveld::sim
