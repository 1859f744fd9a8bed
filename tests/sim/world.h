#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "abi/hang_region.h"
#include "core/daemon.h"
#include "hangs/qv_process_info.h"
#include "platform/log.h"
#include "tests/sim/sim_platform.h"

namespace quorveld::sim {

using Level = platform::LogLevel;
enum class Save { no, yes };

class World;

/// An application that is connected to the daemon. A handle: copies are the same application.
class App {
 public:
  int32_t pid() const { return pid_; }
  SimMemory& memory() const { return *memory_; }
  QVSharedHangRegion& region() const { return *reinterpret_cast<QVSharedHangRegion*>(memory_->bytes()); }
  hangEvent& slot(int index) const { return region().slots[index]; }

  /// Sends `message` and lets the daemon take it.
  void send(SimMessage message) const;

  /// Sends the registration: command 1 with the region.
  void registerRegion() const;

  /// Hangs for `duration`, then says so. Never ends twice in one second, which is what tells report files
  /// apart.
  void reportHang(std::chrono::nanoseconds duration, Save save, const std::string& name = "MainThread") const;

  /// Notes an operation that began `age` ago in a slot.
  void begin(int index, const std::string& name, std::chrono::nanoseconds age, Save save = Save::yes) const;

  void disconnect() const;
  /// A connection of its own takes the place of the one that it had.
  void reconnect();
  const SimClient& client() const { return client_; }

 private:
  friend class World;
  App(World& world, int32_t pid, size_t regionBytes);

  World* world_;
  int32_t pid_;
  std::shared_ptr<SimMemory> memory_;
  SimClient client_;
};

/// The simulated platform with the daemon on it, and a scenario's verbs.
class World : public SimPlatform {
 public:
  enum class Daemon { running, later };

  /// A running daemon has QuorvelEnabled and QuorvelEnableKelvane on; one for later finds what the scenario
  /// prepares.
  explicit World(Daemon daemon = Daemon::running);
  ~World();

  /// Starts the daemon.
  void start();
  /// Ends the daemon's process: another one knows nothing of it.
  void stop();
  bool running() const { return daemon_ && !queues.exitStatus(); }

  /// A connected application with executable "/apps/NAME" and bundle "com.example.NAME".
  App connectApp(const std::string& name, size_t regionBytes = sizeof(QVSharedHangRegion));
  /// … which is watched, too.
  App startApp(const std::string& name);

  /// The user changes a preference and the system says so.
  void prefer(const std::string& key, platform::PreferenceValue::Variant value,
              const char* domain = SimPreferences::kDomain);
  /// The system says that preferences have changed.
  void announcePreferences();

  void replenishCredits() { QVProcessInfo::replenishAppCredits(); }

  std::vector<std::string> spool() const { return files.list("/var/root/Library/Caches/quorveld/spool"); }
  std::vector<std::string> temporaryFiles() const {
    return files.list("/var/root/Library/Caches/quorveld/tmp");
  }

  uint64_t now() { return clock.absoluteTime(); }
  /// Whether exactly this line was logged since the last `logs.clear()`; shows all lines if not.
  testing::AssertionResult logged(Level level, const std::string& text) const;
  /// All lines of `level` since the last `logs.clear()`, in order.
  std::vector<std::string> lines(Level level) const;

 private:
  int32_t nextPid_ = 501;
  std::unique_ptr<quorveld::Daemon> daemon_;
};

}  // namespace quorveld::sim
