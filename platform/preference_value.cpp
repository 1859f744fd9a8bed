#include <strings.h>

#include <charconv>
#include <cmath>

#include "platform/preferences_store.h"

namespace quorveld::platform {

namespace {

template <typename T>
std::optional<T> parseWhole(const std::string& text) {
  T value{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

std::optional<double> finite(double value) {
  return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

std::optional<int64_t> truncate(double value) {
  // 2^63 is a double, the largest int64_t isn't: the upper bound is exclusive.
  constexpr double kLimit = 9223372036854775808.0;
  if (!(value >= -kLimit && value < kLimit)) return std::nullopt;
  return static_cast<int64_t>(value);
}

}  // namespace

std::optional<bool> PreferenceValue::asBool() const {
  if (const bool* value = std::get_if<bool>(&value_)) return *value;
  if (const int64_t* value = std::get_if<int64_t>(&value_)) return *value != 0;
  if (const double* value = std::get_if<double>(&value_)) {
    return std::isfinite(*value) ? std::optional(*value != 0.0) : std::nullopt;
  }
  if (const std::string* text = std::get_if<std::string>(&value_)) {
    for (const char* yes : {"true", "yes", "1"}) {
      if (strcasecmp(text->c_str(), yes) == 0) return true;
    }
    for (const char* no : {"false", "no", "0"}) {
      if (strcasecmp(text->c_str(), no) == 0) return false;
    }
  }
  return std::nullopt;
}

std::optional<int64_t> PreferenceValue::asInt() const {
  if (const bool* value = std::get_if<bool>(&value_)) return *value ? 1 : 0;
  if (const int64_t* value = std::get_if<int64_t>(&value_)) return *value;
  if (const double* value = std::get_if<double>(&value_)) return truncate(*value);
  if (const std::string* text = std::get_if<std::string>(&value_)) return parseWhole<int64_t>(*text);
  return std::nullopt;
}

std::optional<double> PreferenceValue::asDouble() const {
  if (const bool* value = std::get_if<bool>(&value_)) return *value ? 1.0 : 0.0;
  if (const int64_t* value = std::get_if<int64_t>(&value_)) return static_cast<double>(*value);
  if (const double* value = std::get_if<double>(&value_)) return finite(*value);
  if (const std::string* text = std::get_if<std::string>(&value_)) {
    const std::optional<double> spelled = parseWhole<double>(*text);
    return spelled ? finite(*spelled) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace quorveld::platform
