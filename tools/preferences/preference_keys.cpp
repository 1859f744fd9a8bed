#include "tools/preferences/preference_keys.h"

#include <array>
#include <limits>

namespace quorvelctl {
namespace {

constexpr std::string_view kTelvo = "com.corvix.telvo";
constexpr std::string_view kQuorvel = "com.corvix.quorvel";
constexpr int64_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int64_t kIntMax = std::numeric_limits<int32_t>::max();
constexpr int64_t kUnsignedMax = std::numeric_limits<uint32_t>::max();

constexpr PreferenceKey boolean(std::string_view name, std::string_view domain, std::string_view absent,
                                bool profile, std::string_view meaning) {
  return {name, domain, PreferenceType::boolean, 0, 1, absent, profile, meaning};
}

constexpr PreferenceKey integer(std::string_view name, int64_t least, int64_t most, std::string_view absent,
                                bool profile, std::string_view meaning) {
  return {name, kTelvo, PreferenceType::integer, least, most, absent, profile, meaning};
}

constexpr PreferenceKey real(std::string_view name, std::string_view absent, bool profile,
                             std::string_view meaning, PreferenceType type = PreferenceType::real) {
  return {name, kTelvo, type, kIntMin, kIntMax, absent, profile, meaning};
}

constexpr std::array kKeys{
    boolean("QuorvelEnabled", kTelvo, "false", true, "hang tracking"),
    real("QuorvelHangTimeoutDuration", "5000 ms", true, "ms; an operation that lasts longer is a hang"),
    real("QuorvelLongHangDurationThreshold", "2000 ms", true, "ms; from here on a hang is long"),
    boolean("QuorvelEnableKelvane", kTelvo, "false", true, "trace reports are saved"),
    integer("QuorvelDailyLogLimit", kIntMin, kIntMax, "25", true, "reports of short hangs a day"),
    integer("QuorvelDailyLongLogLimit", kIntMin, kIntMax, "25", true, "reports of long hangs a day"),
    real("QuorvelReportPeriod", "3600 s", true, "s; a quarter of it gives each process a credit back",
         PreferenceType::seconds),
    boolean("QuorvelEnableDisplayData", kTelvo, "true", true, "reports carry the display's history"),
    boolean("QuorvelEnableHUD", kTelvo, "false", false, "hangs are shown on screen, on internal builds"),
    boolean("QuorvelEnableMemoryLogging", kTelvo, "false", false, "memory reports"),
    integer("QuorvelMemoryLoggingInterval", 1, kUnsignedMax, "3600 s", false,
            "s; time between two memory reports"),
    integer("QuorvelReportsMaxSize", 1, kUnsignedMax, "256 MB", true,
            "MB; reports in a folder beyond it, the oldest first, are removed"),
    integer("QuorvelReportsMaxAge", 1, kUnsignedMax, "30 days", true,
            "days; a report that is older is removed"),
    integer("QuorvelAppActivationLoggingMaxActivationCount", 0, kUnsignedMax, "200", false,
            "activations reported a day"),
    real("QuorvelAppActivationLoggingCPUUtilizationThreshold", "50 ms", false,
         "ms; CPU time below which an activation's report leaves a process out; only above 0",
         PreferenceType::positive),
    boolean("QuorvelSlowActKelvanesEnabled", kTelvo, "false", true,
            "trace reports of slow launches, in place of activation reports"),
    integer("QuorvelSlowActLaunchKelvaneThreshold", kIntMin, kIntMax, "5000 ms", true,
            "ms; a launch that takes longer is slow"),
    integer("QuorvelSlowActDailyLogLimit", kIntMin, kIntMax, "25", true, "slow-launch reports a day"),
    integer("QuorvelSlowActPerAppMax", kIntMin, kIntMax, "5", true,
            "slow-launch reports a day for one application"),
    boolean("QuorvelInternalSettingCreated", kTelvo, "false", false,
            "the daemon's note that an internal build has been set up"),
    integer("QuorvelInternalSettingsVersion", 0, kUnsignedMax, "none", false,
            "the daemon's note of which set-up that was"),
    boolean("QuorvelEnableAppActivationLogging", kQuorvel, "false", false,
            "activations are tracked and reported"),
};

}  // namespace

std::span<const PreferenceKey> preferenceKeys() {
  return kKeys;
}

const PreferenceKey* findPreferenceKey(std::string_view name) {
  for (const PreferenceKey& key : kKeys) {
    if (key.name == name) return &key;
  }
  return nullptr;
}

std::string_view typeName(PreferenceType type) {
  switch (type) {
    case PreferenceType::boolean:
      return "bool";
    case PreferenceType::integer:
      return "integer";
    case PreferenceType::real:
    case PreferenceType::positive:
    case PreferenceType::seconds:
      return "real";
  }
  return "";
}

}  // namespace quorvelctl
