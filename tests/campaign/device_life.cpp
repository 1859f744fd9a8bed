#include "tests/campaign/device_life.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

#include "base/paths.h"
#include "base/wall_time.h"
#include "core/preferences.h"

namespace quorveld::campaign {

namespace {

using namespace std::chrono_literals;
using platform::PreferenceValue;
using sim::App;
using sim::Op;

constexpr const char* kPreferencesChanged = "com.corvix.telvo.tasking_changed";
constexpr size_t kMostClients = 12;

}  // namespace

DeviceLife::DeviceLife(uint64_t seed) : random_(seed) {
  world_.random.seed(seed + 1);
  world_.traceLibraries.repeatsReason = true;
  world_.queues.lateTimers = chance(0.5);
  sim::SimKernel& kernel = world_.kernel;
  kernel.ledgerNames = {{"resident", "", ""}, {"phys_footprint", "", ""}};
  for (const int32_t pid : {1, 20, 501, 502, 503}) {
    kernel.processes.push_back({.pid = pid, .name = "process"});
    kernel.priorities.push_back({.pid = pid, .priority = 0, .user_data = 0, .limit = 0, .state = 0});
    kernel.ledgers[pid].resize(2);
  }
  world_.preferences.userSets("QuorvelEnableKelvane", true);
  startDaemon();
}

std::string DeviceLife::lastWords() const {
  std::string words;
  for (const std::string& line : books_.recentLines()) words += line + "\n";
  const std::chrono::duration<double> uptime = world_.clock.uptime;
  return words + "after " + std::to_string(uptime.count()) + " s";
}

DeviceLife::Duration DeviceLife::drawn(Duration least, Duration most) {
  const double low = std::log(static_cast<double>(least.count()));
  const double high = std::log(static_cast<double>(most.count()));
  return Duration(static_cast<int64_t>(std::exp(std::uniform_real_distribution<double>(low, high)(random_))));
}

std::string DeviceLife::oddName() {
  static const std::array<std::string, 8> kNames = {
      "MainThread",         "scroll", "", "../../etc", "-x", "\xC3\xA9t\xC3\xA9", "\xFF\xFE\"\\\n",
      std::string(500, 'n')};
  return kNames[between<size_t>(0, kNames.size() - 1)];
}

void DeviceLife::liveDay() {
  struct Choice {
    int weight;
    void (DeviceLife::*happen)();
  };
  static constexpr std::array<Choice, 12> kChoices = {{{30, &DeviceLife::beginOperation},
                                                       {25, &DeviceLife::reportHang},
                                                       {5, &DeviceLife::passFence},
                                                       {20, &DeviceLife::launch},
                                                       {6, &DeviceLife::changeClients},
                                                       {5, &DeviceLife::changePreference},
                                                       {1, &DeviceLife::disturbClock},
                                                       {3, &DeviceLife::disturbDevice},
                                                       {4, &DeviceLife::breakSomething},
                                                       {1, &DeviceLife::restartDaemon},
                                                       {3, &DeviceLife::collectReports},
                                                       {2, &DeviceLife::confuse}}};
  std::array<double, kChoices.size()> weights{};
  std::transform(kChoices.begin(), kChoices.end(), weights.begin(),
                 [](const Choice& choice) { return choice.weight; });
  std::discrete_distribution<size_t> choose(weights.begin(), weights.end());

  const Duration awake = chance(0.1) ? Duration(24h) : drawn(10min, 20h);
  const Duration end = world_.clock.uptime + awake;
  const Duration longestPause = drawn(1min, 2h);
  while (world_.clock.uptime < end) {
    pass(drawn(1ms, longestPause));
    if (!world_.running()) {
      // With everything off it has ended; whoever turns something on starts it.
      pass(drawn(1s, 1h));
      startDaemon();
    }
    (this->*kChoices[choose(random_)].happen)();
    books_.settle();
  }
  books_.closeDay();
  // Asleep the clock of the day goes on, the other one doesn't.
  world_.queues.setWallTime(world_.clock.wallTime() + std::max(Duration(24h) - awake, Duration(0)));
}

/// Lets time pass; what was scheduled happens meanwhile.
void DeviceLife::pass(Duration time) {
  const Duration target = world_.clock.uptime + time;
  for (auto next = scheduled_.begin(); next != scheduled_.end() && next->first <= target;
       next = scheduled_.begin()) {
    const auto [due, what] = std::move(*next);
    scheduled_.erase(next);
    world_.advance(due - world_.clock.uptime);
    books_.settle();
    what();
    books_.settle();
  }
  world_.advance(target - world_.clock.uptime);
  books_.settle();
}

// --- what applications do ---

void DeviceLife::beginOperation() {
  if (clients_.empty()) return changeClients();
  const size_t index = between<size_t>(0, clients_.size() - 1);
  Client& client = clients_[index];
  const int slot = chance(0.7) ? 0 : between(0, QV_HANG_SLOT_COUNT - 1);
  if (client.operations.contains(slot)) return;
  const int id = nextId_++;
  const bool save = chance(0.7);
  books_.expect(id, save);
  client.operations[slot] = id;
  // Cut where the slot ends, without a NUL then; a name is told by its number.
  client.app.begin(slot, std::to_string(id) + "#" + oddName(), 0ns, save ? sim::Save::yes : sim::Save::no);
  if (chance(0.02)) client.app.slot(slot).startTime = between<uint64_t>(0, UINT64_MAX - 1);
  const bool odd = client.app.slot(slot).startTime != world_.now();
  later(drawn(10ms, 20min), [this, index, slot, id, odd, begun = world_.clock.uptime] {
    endOperation(index, slot, id, odd ? Duration::max() : begun);
  });
}

/// What lasted for long enough was found meanwhile: one a scan, the time-out after which it counts, and a
/// scan every five seconds, a second late at most.
void DeviceLife::endOperation(size_t index, int slot, int id, Duration begun) {
  Client& client = clients_[index];
  client.app.slot(slot).timeoutExempt = 1;
  client.operations.erase(slot);
  const bool watched =
      world_.running() && books_.tracing() && books_.watches(client.app.pid()) && !client.lies;
  const Duration since = std::max({begun, client.registeredAt, calmSince_});
  const double seen = std::chrono::duration<double, std::milli>(world_.clock.uptime - since).count();
  if (begun != Duration::max() && watched && seen > books_.timeoutMs() + 6000.0 * (QV_HANG_SLOT_COUNT + 1) &&
      !books_.recorded(id)) {
    throw Violation("a hang was never found: operation " + std::to_string(id));
  }
  books_.forget(id);
}

void DeviceLife::reportHang() {
  if (clients_.empty()) return;
  const int id = nextId_++;
  const bool save = fences_ || chance(0.8);
  books_.expect(id, save);
  const auto now = static_cast<int64_t>(world_.now());
  const auto duration = static_cast<int64_t>(sim::SimClock::ticks(drawn(10ms, 60s)));
  anyClient().app.send({{"command", 3},
                        {"startTime", chance(0.99) ? now - duration : between<int64_t>(INT64_MIN, INT64_MAX)},
                        {"endTime", now},
                        {"threadID", id},
                        {"name", std::to_string(id) + "#" + oddName()},
                        {"saveReport", save}});
  books_.settle();
  books_.forget(id);
}

void DeviceLife::passFence() {
  if (clients_.empty()) return;
  const auto now = static_cast<int64_t>(world_.now());
  const auto span = static_cast<int64_t>(sim::SimClock::ticks(drawn(10ms, 10s)));
  const int blown = between(1, 3);
  if (chance(0.5)) {
    for (int i = 0; i < blown; ++i)
      anyClient().app.send({{"command", 8}, {"startTime", now - span}, {"endTime", now}});
  } else if (fences_) {
    anyClient().app.send({{"command", chance(0.5) ? 6 : 7},
                          {"name", between<int64_t>(1, 4)},
                          {"startTime", now - span},
                          {"endTime", now}});
  }
}

void DeviceLife::launch() {
  if (clients_.empty()) return;
  static constexpr std::array<const char*, 5> kBundles = {
      "com.example.mail", "com.example.viewer", "com.example.notes", "com.example.game", "com.corvix.lumora"};
  const int64_t pid = between(900, 907);
  const std::string bundle = kBundles[between<size_t>(0, kBundles.size() - 1)];
  const auto nowMs = [this] { return activationTimeMs(world_.clock.wallTime()); };
  const auto state = [this] { return int64_t{chance(0.8)}; };
  const Duration duration = drawn(50ms, 90s);
  const App launcher = anyClient().app;
  const auto end = [this, pid, bundle, nowMs, state, launcher] {
    if (!world_.running()) return;
    launcher.send({{"command", 5},
                   {"pid", pid},
                   {"bundle-id", bundle},
                   {"endTime", chance(0.95) ? nowMs() : 0},
                   {"app-activation-state", state()},
                   {"app-activation-result", between<int64_t>(0, 40)}});
  };
  if (chance(0.05)) return end();
  launcher.send({{"command", 4},
                 {"pid", pid},
                 {"bundle-id", bundle},
                 {"startTime", chance(0.95) ? nowMs() : 0},
                 {"ipxStartLatency", nowMs() - between<uint64_t>(0, 300)},
                 {"app-activation-state", state()},
                 {"app-activation-type", between<int64_t>(0, 2)}});
  if (chance(0.85)) later(duration, end);
}

void DeviceLife::changeClients() {
  static constexpr std::array<const char*, 5> kNames = {"viewer", "mail", "notes", "camera", "player"};
  if (clients_.size() < kMostClients && (clients_.empty() || chance(0.3))) {
    clients_.push_back({.app = world_.connectApp(kNames[between<size_t>(0, kNames.size() - 1)])});
    if (chance(0.9)) clients_.back().app.registerRegion();
    clients_.back().registeredAt = world_.clock.uptime;
    return;
  }
  Client& client = anyClient();
  client.registeredAt = world_.clock.uptime;
  switch (between(0, 4)) {
    case 0:
      return client.app.disconnect();
    case 1:
      client.app.send({{"command", 2}});
      return books_.stoppedWatching(client.app.pid());
    case 2:
      return client.app.registerRegion();  // watched already, or connected no more
    default:
      client.app.reconnect();
      return client.app.registerRegion();
  }
}

// --- what the user and the machine do ---

void DeviceLife::changePreference() {
  struct Preference {
    const char* key;
    double least, most;  ///< equal: true or false
    const char* domain = sim::SimPreferences::kDomain;
  };
  static constexpr std::array<Preference, 17> kPreferences = {{
      {"QuorvelEnabled", 0, 0},
      {"QuorvelEnableKelvane", 0, 0},
      {"QuorvelEnableDisplayData", 0, 0},
      {"QuorvelEnableHUD", 0, 0},
      {"QuorvelEnableMemoryLogging", 0, 0},
      {"QuorvelSlowActKelvanesEnabled", 0, 0},
      {"QuorvelEnableAppActivationLogging", 0, 0, kActivationPreferencesDomain},
      {"QuorvelReportPeriod", -10, 90'000},
      {"QuorvelDailyLogLimit", -3, 40},
      {"QuorvelDailyLongLogLimit", -3, 40},
      {"QuorvelLongHangDurationThreshold", 100, 10'000},
      {"QuorvelHangTimeoutDuration", 100, 20'000},
      {"QuorvelSlowActPerAppMax", -2, 6},
      {"QuorvelSlowActDailyLogLimit", -2, 30},
      {"QuorvelSlowActLaunchKelvaneThreshold", 0, 20'000},
      {"QuorvelMemoryLoggingInterval", 60, 7200},
      {"QuorvelAppActivationLoggingMaxActivationCount", 0, 50},
  }};
  const Preference& preference = kPreferences[between<size_t>(0, kPreferences.size() - 1)];
  const bool isFlag = preference.least == preference.most;
  PreferenceValue::Variant value = chance(0.75);
  if (!isFlag) {
    const auto number =
        between(static_cast<int64_t>(preference.least), static_cast<int64_t>(preference.most));
    value = chance(0.8) ? PreferenceValue::Variant(number) : PreferenceValue::Variant(std::to_string(number));
  }
  if (chance(0.03)) value = std::string("neither");
  if (chance(0.05)) {
    world_.preferences.managed[kManagedPreferencesPath].insert_or_assign(preference.key,
                                                                         PreferenceValue(value));
  } else if (chance(0.1)) {
    world_.preferences.managed.clear();
  } else if (chance(0.1)) {
    world_.preferences.userRemoves(preference.key, preference.domain);
  } else {
    world_.preferences.userSets(preference.key, value, preference.domain);
  }
  calmSince_ = world_.clock.uptime;
  switch (between(0, 3)) {
    case 0:
      return;  // nobody says so
    case 1:
      return world_.queues.requestReload();
    case 2:
      return world_.notifications.post("com.corvix.quorvel.pref_changed");
    default:
      return world_.notifications.post(kPreferencesChanged);
  }
}

void DeviceLife::disturbClock() {
  const Duration jump = drawn(1s, 72h);
  world_.queues.setWallTime(world_.clock.wallTime() + (chance(0.7) ? jump : -jump));
}

void DeviceLife::disturbDevice() {
  if (chance(0.7))
    return world_.notifications.post("com.corvix.drovik.hid.displayStatus", between<uint64_t>(0, 1));
  if (chance(0.5)) return world_.notifications.post("com.corvix.mobile.strelld.first_unlock");
  world_.queues.requestStatus();
}

/// One of the platform's operations fails, once or for some time.
void DeviceLife::breakSomething() {
  static constexpr std::array kReasons = {std::errc::no_space_on_device, std::errc::permission_denied,
                                          std::errc::io_error, std::errc::too_many_files_open};
  const auto op = static_cast<Op>(between(0, static_cast<int>(Op::count_) - 1));
  const std::errc reason = kReasons[between<size_t>(0, kReasons.size() - 1)];
  if (chance(0.5)) return world_.faults.failOnce(op, between(1, 4), reason);
  world_.faults.failAlways(op, reason);
  later(drawn(1s, 2h), [this, op] { world_.faults.heal(op); });
}

void DeviceLife::restartDaemon() {
  world_.stop();
  startDaemon();
}

/// What was there is gone with the old process; applications come back or don't.
void DeviceLife::startDaemon() {
  world_.stop();
  books_.settle();
  books_.daemonStarts();
  world_.preferences.managed.clear();
  world_.preferences.userSets("QuorvelEnabled", true);
  world_.device.capabilities.clear();
  if (chance(0.2)) world_.device.capabilities.insert("InternalBuild");
  world_.faults.heal(Op::subscribe);
  world_.start();
  fences_ = chance(0.3);
  for (Client& client : clients_) {
    if (!world_.running() || chance(0.1)) continue;
    client.app.reconnect();
    client.app.registerRegion();
  }
  calmSince_ = world_.clock.uptime;
  books_.settle();
}

void DeviceLife::collectReports() {
  for (const auto& [folder, names] :
       {std::pair(kSpoolDirectory, world_.spool()),
        std::pair(kMemoryReportDirectory, world_.files.list(kMemoryReportDirectory))}) {
    for (const std::string& name : names) world_.files.takeAway(std::string(folder) + "/" + name);
  }
}

/// What only a broken or hostile application does.
void DeviceLife::confuse() {
  if (clients_.empty()) return;
  Client& client = anyClient();
  static constexpr std::array<int64_t, 7> kIncomplete = {-1, 0, 1, 4, 5, 9, INT64_MAX};
  switch (between(0, 4)) {
    case 0:
      return client.app.send({{"command", kIncomplete[between<size_t>(0, kIncomplete.size() - 1)]}});
    case 1:
      client.app.client().sendOdd("an array");
      break;
    case 2:
      client.app.client().fail(platform::IpcErrorKind::connectionInterrupted, "Connection interrupted");
      break;
    case 3:
      client.app.region().slotCount = between<uint32_t>(0, UINT32_MAX);
      client.lies = true;
      break;
    default:
      client.app.region().protocolVersion = between<uint32_t>(3, 5);
  }
  world_.settle();
}

}  // namespace quorveld::campaign
