#include "core/daemon.h"

#include <cstdint>
#include <optional>
#include <utility>

#include "abi/messages.h"
#include "activation/app_activation_tracker.h"
#include "base/log.h"
#include "base/report_folder.h"
#include "base/settings.h"
#include "core/cache_directories.h"
#include "hangs/qv_process_info.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "platform/preferences_store.h"

namespace quorveld {

namespace {

constexpr int32_t kDisplayStateUnknown = -1;
constexpr const char* kTaskingChanged = "com.corvix.telvo.tasking_changed";
constexpr const char* kProfileListChanged = "com.corvix.Pravenet.profileListChanged";
constexpr const char* kActivationPreferencesChanged = "com.corvix.quorvel.pref_changed";

uint64_t nowTicks() {
  return platform::current().clock.absoluteTime();
}

}  // namespace

Daemon::Daemon() = default;

Daemon::~Daemon() {
  listener_.reset();
  AppActivationTracker::shutDown();
  if (workQueue_) QVProcessInfo::stopWatchingAllPids();
}

void Daemon::start() {
  const platform::Platform& platform = platform::current();
  createCacheDirectories();
  removeUnfinishedReports();
  platform.preferences.synchronise(kPreferencesDomain);
  checkPreferences();

  workQueue_ = platform.queues.createMain("com.corvix.quorvel", platform::QoSClass::userInitiated);
  QVProcessInfo::initialize(*workQueue_);
  AppActivationTracker::initialize(*workQueue_);
  timers_ = std::make_unique<DaemonTimers>(*workQueue_);
  preferences_ = std::make_unique<Preferences>(*workQueue_, *timers_);
  workQueue_->onStatusRequest([this] { logStatus(); });
  workQueue_->onReloadRequest([this] { refresh(); });

  listener_ = platform.ipc.listen(QV_SERVICE_NAME, *workQueue_);
  listener_->setHandler(
      [this](const platform::ListenerEvent& event) { dispatcher_.handleListenerEvent(event); });
  listener_->resume();

  subscribe(kTaskingChanged, [this] { refresh(); });
  subscribe(kProfileListChanged, [this] { refresh(); });
  subscribe(kActivationPreferencesChanged, [this] {
    quorvelLog().info("QVActivationStats: Activation Logging preferences changed!");
    refresh();
  });
  if (refresh() && settings().enableDisplayData) startDisplayHistory();
}

/// Takes the posts first: a change after this look at the preferences finds its post untaken when the look
/// ends the daemon, and whoever starts daemons sees it.
bool Daemon::refresh() {
  for (const char* name : {kTaskingChanged, kProfileListChanged, kActivationPreferencesChanged}) {
    platform::current().notifications.take(name);
  }
  const bool watchedBefore = settings().hangWatchEnabled;
  const bool stays = preferences_->refreshPreferences();
  // While it was off, every look at the preferences let go of all processes.
  if (!watchedBefore && settings().hangWatchEnabled) dispatcher_.disconnectForgottenPeers();
  return stays;
}

int Daemon::run() {
  return workQueue_->run();
}

void Daemon::subscribe(const char* name, platform::Task handler) {
  subscriptions_.push_back(
      platform::current().notifications.subscribe(name, *workQueue_, std::move(handler)));
}

void Daemon::startDisplayHistory() {
  QVProcessInfo::addDisplayStateChangeEvent(nowTicks(), kDisplayStateUnknown, 0);
  displayStatus_ = platform::current().notifications.subscribe(
      "com.corvix.drovik.hid.displayStatus", *workQueue_, [this] { displayStateChanged(); });
}

void Daemon::displayStateChanged() {
  const std::optional<uint64_t> state = displayStatus_->state();
  if (!state) return;
  const uint64_t now = nowTicks();
  const int32_t on = *state != 0 ? 1 : 0;
  QVProcessInfo::addDisplayStateChangeEvent(now, on, 0);
  // The first number is the state that was left.
  quorvelLog().info("Display state changed %d -> %llu,  time: %llu", 1 - on,
                    static_cast<unsigned long long>(*state), static_cast<unsigned long long>(now));
}

void Daemon::logStatus() const {
  const Settings& current = settings();
  quorvelLog().standard(
      "Status: hang tracing %s, memory logging %s (every %u s), activation logging %s, traces %s",
      current.hangWatchEnabled ? "on" : "off", current.memoryLoggingEnabled ? "on" : "off",
      current.memoryLoggingInterval, current.appActivationLoggingEnabled ? "on" : "off",
      current.enableKelvane ? "on" : "off");
  QVProcessInfo::logStatus();
  AppActivationTracker::logStatus();
}

}  // namespace quorveld
