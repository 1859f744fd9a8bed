#include <optional>

#include "base/log.h"
#include "base/settings.h"
#include "core/preferences.h"
#include "platform/device.h"
#include "platform/platform.h"
#include "platform/preferences_store.h"

namespace quorveld {

void checkPreferences() {
  constexpr int64_t kInternalSettingsVersion = 2;
  const platform::Platform& platform = platform::current();
  settings().isInternalBuild = platform.device.capability("InternalBuild");
  if (!settings().isInternalBuild) return;

  platform::PreferencesStore& store = platform.preferences;
  const auto value = [&](const char* key) { return store.value(key, kPreferencesDomain); };

  // Forced on once per device: whoever turns it off later stays off.
  const auto created = value("QuorvelInternalSettingCreated");
  if (!created || !created->asBool().value_or(false)) {
    quorvelLog().info("checkPreferences: Internal install, force enabled.");
    store.set("QuorvelEnabled", {true}, kPreferencesDomain);
    store.set("QuorvelInternalSettingCreated", {true}, kPreferencesDomain);
  }
  const auto stored = value("QuorvelInternalSettingsVersion");
  const std::optional<int64_t> version = stored ? stored->asInt() : std::nullopt;
  if (!version) store.remove("QuorvelDuration", kPreferencesDomain);
  if (version != kInternalSettingsVersion) {
    store.set("QuorvelInternalSettingsVersion", {kInternalSettingsVersion}, kPreferencesDomain);
  }
  const auto kelvane = value("QuorvelEnableKelvane");
  if (!kelvane || !kelvane->asBool()) store.set("QuorvelEnableKelvane", {true}, kPreferencesDomain);
  store.set("QuorvelEnableMemoryLogging", {true}, kPreferencesDomain);
  store.synchronise(kPreferencesDomain);
}

}  // namespace quorveld
