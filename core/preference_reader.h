#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/preferences.h"
#include "platform/preferences_store.h"

namespace quorveld {

/// What a key's value must answer; one out of range answers as little as one of a wrong type.
template <typename Result>
struct PreferenceReading {
  std::optional<Result> (*convert)(const platform::PreferenceValue& value);
  const char* expected;  ///< for people: "true or false"
};

/// Seconds as a profile or a user wrote them: the value must answer the integer reading, and is then read as
/// a float.
struct ReportPeriod {
  float seconds;
  int32_t wholeSeconds;
};

extern const PreferenceReading<bool> kBoolReading;
extern const PreferenceReading<int32_t> kIntReading;
extern const PreferenceReading<uint32_t> kUnsignedReading;
extern const PreferenceReading<uint32_t> kIntervalReading;  ///< in which 0 is out of range
extern const PreferenceReading<double> kRealReading;
extern const PreferenceReading<double> kPositiveRealReading;
extern const PreferenceReading<ReportPeriod> kReportPeriodReading;

/// One look at the preferences, which keeps account of what it ignored. Work queue only.
class PreferenceReader {
 public:
  PreferenceReader(platform::PreferencesStore& store, platform::PreferenceDictionary managed)
      : store_(store), managed_(std::move(managed)) {}

  template <typename Result>
  std::optional<Result> fromStore(const char* key, const PreferenceReading<Result>& reading,
                                  const char* domain = kPreferencesDomain) {
    const auto value = store_.value(key, domain);
    return value ? answer(*value, reading, key, domain) : std::nullopt;
  }

  /// The managed configuration's entry wins over the user's; one of an unsuitable type is passed over.
  template <typename Result>
  std::optional<Result> fromProfile(const char* key, const PreferenceReading<Result>& reading) {
    const std::string name = std::string("QVProfile.") + key;
    if (const auto entry = managed_.find(name); entry != managed_.end()) {
      if (const auto result = answer(entry->second, reading, name, kManagedPreferencesPath)) return result;
    }
    return fromStore(key, reading);
  }

  /// A text for each value that did not answer: which, where, what was expected and what was found.
  const std::vector<std::string>& ignored() const { return ignored_; }

 private:
  template <typename Result>
  std::optional<Result> answer(const platform::PreferenceValue& value,
                               const PreferenceReading<Result>& reading, const std::string& key,
                               const char* place) {
    const std::optional<Result> result = reading.convert(value);
    if (!result) ignore(key, place, reading.expected, value);
    return result;
  }
  void ignore(const std::string& key, const char* place, const char* expected,
              const platform::PreferenceValue& found);

  platform::PreferencesStore& store_;
  const platform::PreferenceDictionary managed_;
  std::vector<std::string> ignored_;
};

}  // namespace quorveld
