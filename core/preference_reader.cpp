#include "core/preference_reader.h"

#include <limits>

#include "base/text.h"
#include "base/value_text.h"

namespace quorveld {

namespace {

using platform::PreferenceValue;

std::optional<bool> asBool(const PreferenceValue& value) {
  return value.asBool();
}

template <typename Integer, Integer kLeast = std::numeric_limits<Integer>::min()>
std::optional<Integer> asInteger(const PreferenceValue& value) {
  const auto wide = value.asInt();
  if (!wide || *wide < kLeast || *wide > std::numeric_limits<Integer>::max()) return std::nullopt;
  return static_cast<Integer>(*wide);
}

std::optional<double> asDouble(const PreferenceValue& value) {
  return value.asDouble();
}

std::optional<double> asPositive(const PreferenceValue& value) {
  const auto number = value.asDouble();
  return number && *number > 0.0 ? number : std::nullopt;
}

std::optional<ReportPeriod> asPeriod(const PreferenceValue& value) {
  const auto whole = asInteger<int32_t>(value);
  const auto seconds = value.asDouble();
  if (!whole || !seconds) return std::nullopt;
  return ReportPeriod{static_cast<float>(*seconds), *whole};
}

}  // namespace

const PreferenceReading<bool> kBoolReading{asBool, "true or false"};
const PreferenceReading<int32_t> kIntReading{asInteger<int32_t>,
                                             "a whole number from -2147483648 to 2147483647"};
const PreferenceReading<uint32_t> kUnsignedReading{asInteger<uint32_t>,
                                                   "a whole number from 0 to 4294967295"};
const PreferenceReading<uint32_t> kIntervalReading{asInteger<uint32_t, 1>,
                                                   "a whole number from 1 to 4294967295"};
const PreferenceReading<double> kRealReading{asDouble, "a number"};
const PreferenceReading<double> kPositiveRealReading{asPositive, "a number above 0"};
const PreferenceReading<ReportPeriod> kReportPeriodReading{
    asPeriod, "a number, whole if it is a text, from -2147483648 to 2147483647"};

void PreferenceReader::ignore(const std::string& key, const char* place, const char* expected,
                              const PreferenceValue& found) {
  ignored_.push_back(formatted("%s in %s is ignored: expected %s, found %s", key.c_str(), place, expected,
                               describe(found).c_str()));
}

}  // namespace quorveld
