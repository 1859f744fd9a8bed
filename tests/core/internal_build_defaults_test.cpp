#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "base/settings.h"
#include "tests/sim/world.h"

// What an internal build has set in its preferences, and what it leaves as its user set it.

namespace quorveld {
namespace {

using platform::OpaquePreference;
using platform::PreferenceValue;
using sim::Level;
using sim::World;

using Setting = std::pair<const char*, PreferenceValue::Variant>;

TEST(InternalBuild, GetsItsDefaultsOnceButMemoryLoggingAlways) {
  struct Case {
    const char* what;
    std::vector<Setting> before;
    std::vector<Setting> after;
    bool forced;
    bool keepsDuration;
  };
  const Case cases[] = {
      {"fresh", {}, {{"QuorvelEnabled", true}, {"QuorvelEnableKelvane", true}}, true, false},
      {"turned off by its user",
       {{"QuorvelInternalSettingCreated", true}, {"QuorvelEnabled", false}, {"QuorvelEnableKelvane", false}},
       {{"QuorvelEnabled", false}, {"QuorvelEnableKelvane", false}},
       false,
       false},
      {"older version",
       {{"QuorvelInternalSettingCreated", true}, {"QuorvelInternalSettingsVersion", int64_t{1}}},
       {{"QuorvelEnableKelvane", true}},
       false,
       true},
      {"same version",
       {{"QuorvelInternalSettingsVersion", int64_t{2}}, {"QuorvelEnableMemoryLogging", false}},
       {{"QuorvelEnabled", true}},
       true,
       true},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    World world(World::Daemon::later);
    world.device.capabilities.insert("InternalBuild");
    world.preferences.userSets("QuorvelDuration", 5.0);
    for (const auto& [key, value] : item.before) world.preferences.userSets(key, value);
    world.start();
    EXPECT_TRUE(settings().isInternalBuild);
    EXPECT_EQ(world.preferences.synchronised.size(), 4u)
        << "what was written is synchronised before it is read";
    for (const auto& [key, value] : item.after)
      EXPECT_EQ(world.preferences.stored(key), PreferenceValue(value)) << key;
    EXPECT_EQ(world.preferences.stored("QuorvelInternalSettingCreated"), PreferenceValue(true));
    EXPECT_EQ(world.preferences.stored("QuorvelInternalSettingsVersion"), PreferenceValue(int64_t{2}));
    EXPECT_EQ(world.preferences.stored("QuorvelEnableMemoryLogging"), PreferenceValue(true));
    EXPECT_EQ(world.preferences.stored("QuorvelDuration").has_value(), item.keepsDuration);
    EXPECT_EQ(world.logs.has(Level::info, "checkPreferences: Internal install, force enabled."), item.forced);
  }
  {
    World world(World::Daemon::later);
    world.device.capabilities.insert("InternalBuild");
    world.preferences.userSets("QuorvelInternalSettingCreated", OpaquePreference{"data"});
    world.start();
    EXPECT_TRUE(
        world.logged(Level::standard,
                     "checkPreferences: QuorvelInternalSettingCreated in com.corvix.telvo is ignored: "
                     "expected true or false, found data"));
    EXPECT_EQ(world.preferences.stored("QuorvelInternalSettingCreated"), PreferenceValue(true));
  }
  World other;
  EXPECT_FALSE(other.preferences.stored("QuorvelInternalSettingCreated"));
  EXPECT_FALSE(settings().isInternalBuild);
}

}  // namespace
}  // namespace quorveld
