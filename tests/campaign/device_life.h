#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/campaign/books.h"
#include "tests/sim/world.h"

namespace quorveld::campaign {

/// Days of one device, drawn from a seed: what applications, launchers, the user and the machine do to the
/// daemon, with the books kept beside it. Throws a Violation.
class DeviceLife {
 public:
  explicit DeviceLife(uint64_t seed);

  /// Awake for some minutes up to a whole day, and asleep until the next begins.
  void liveDay();

  const Books::Totals& totals() const { return books_.totals(); }
  /// What the daemon said last and when this is, for whoever looks into a violation.
  std::string lastWords() const;

 private:
  using Duration = std::chrono::nanoseconds;

  /// An application, and what it is at by slot.
  struct Client {
    sim::App app;
    std::map<int, int> operations = {};  ///< slot to the operation's number
    Duration registeredAt{};
    bool lies = false;  ///< its region holds anything
  };

  // What happens, each drawn with a weight of its own.
  void beginOperation();
  void reportHang();
  void passFence();
  void launch();
  void changeClients();
  void changePreference();
  void disturbClock();
  void disturbDevice();
  void breakSomething();
  void restartDaemon();
  void collectReports();
  void confuse();

  void startDaemon();
  void endOperation(size_t client, int slot, int id, Duration begun);
  void pass(Duration time);
  void later(Duration delay, std::function<void()> what) {
    scheduled_.emplace(world_.clock.uptime + delay, std::move(what));
  }

  template <typename T>
  T between(T least, T most) {
    return std::uniform_int_distribution<T>(least, most)(random_);
  }
  bool chance(double share) { return std::bernoulli_distribution(share)(random_); }
  /// Short ones as likely as long ones, by magnitude.
  Duration drawn(Duration least, Duration most);
  Client& anyClient() { return clients_[between<size_t>(0, clients_.size() - 1)]; }
  /// What may stand behind "ID#" in a name.
  std::string oddName();

  std::mt19937_64 random_;
  sim::World world_{sim::World::Daemon::later};
  Books books_{world_};
  std::vector<Client> clients_;
  std::multimap<Duration, std::function<void()>> scheduled_;
  int nextId_ = 1;
  Duration calmSince_{};  ///< since then nothing but applications did anything to hang tracking
  bool fences_ = false;   ///< this daemon hears of fences: every hang that is reported may be theirs
};

}  // namespace quorveld::campaign
