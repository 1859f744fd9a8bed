#include <cstdint>
#include <string>

#include "base/log.h"
#include "base/settings.h"
#include "core/preference_reader.h"
#include "core/preferences.h"
#include "platform/device.h"
#include "platform/platform.h"
#include "platform/preferences_store.h"

namespace quorveld {

void checkPreferences() {
  constexpr uint32_t kInternalSettingsVersion = 2;
  const platform::Platform& platform = platform::current();
  settings().isInternalBuild = platform.device.capability("InternalBuild");
  if (!settings().isInternalBuild) return;

  platform::PreferencesStore& store = platform.preferences;
  PreferenceReader reader(store, {});
  const auto created = reader.fromStore("QuorvelInternalSettingCreated", kBoolReading);
  const auto version = reader.fromStore("QuorvelInternalSettingsVersion", kUnsignedReading);
  const auto kelvane = reader.fromStore("QuorvelEnableKelvane", kBoolReading);
  for (const std::string& text : reader.ignored()) {
    quorvelLog().standard("checkPreferences: %s", text.c_str());
  }

  // Forced on once per device: whoever turns it off later stays off.
  if (!created.value_or(false)) {
    quorvelLog().info("checkPreferences: Internal install, force enabled.");
    store.set("QuorvelEnabled", {true}, kPreferencesDomain);
    store.set("QuorvelInternalSettingCreated", {true}, kPreferencesDomain);
  }
  if (!version) store.remove("QuorvelDuration", kPreferencesDomain);
  if (version != kInternalSettingsVersion) {
    store.set("QuorvelInternalSettingsVersion", {int64_t{kInternalSettingsVersion}}, kPreferencesDomain);
  }
  if (!kelvane) store.set("QuorvelEnableKelvane", {true}, kPreferencesDomain);
  store.set("QuorvelEnableMemoryLogging", {true}, kPreferencesDomain);
  store.synchronise(kPreferencesDomain);
}

}  // namespace quorveld
