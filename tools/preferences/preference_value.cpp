#include "tools/preferences/preference_value.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace quorvelctl {
namespace {

template <typename Number>
std::optional<Number> wholly(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<bool> spelledBool(const std::string& text) {
  for (const char* yes : {"true", "yes", "1"}) {
    if (strcasecmp(text.c_str(), yes) == 0) return true;
  }
  for (const char* no : {"false", "no", "0"}) {
    if (strcasecmp(text.c_str(), no) == 0) return false;
  }
  return std::nullopt;
}

std::string realText(double number) {
  std::array<char, 32> digits;
  std::string text(digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr);
  return text.find_first_of(".e") == std::string::npos ? text + ".0" : text;
}

/// The least whole number that means something: the daemon reads numbers below 0, but no limit, time or
/// period is one.
int64_t leastThatMeans(const PreferenceKey& key) {
  return std::max<int64_t>(key.least, key.type == PreferenceType::seconds ? 1 : 0);
}

std::string range(const PreferenceKey& key) {
  return std::to_string(leastThatMeans(key)) + " to " + std::to_string(key.most);
}

/// Whether 0 means nothing: the daemon takes it for no value, or every operation would be a hang.
bool isAbove0(const PreferenceKey& key) {
  return key.type == PreferenceType::positive || key.name == "QuorvelHangTimeoutDuration";
}

/// The value as the daemon reads a number: truth is 1 or 0, a text what it spells in full. Nothing for what
/// is none.
std::optional<double> numberOf(const StoredValue& value) {
  if (value.element == "true") return 1.0;
  if (value.element == "false") return 0.0;
  if (value.element == "integer" && !wholly<int64_t>(value.text)) return std::nullopt;
  if (value.element != "integer" && value.element != "real" && value.element != "string") return std::nullopt;
  const std::optional<double> number = wholly<double>(value.text);
  return number && std::isfinite(*number) ? number : std::nullopt;
}

/// The same for a whole number, what follows the point of a real one being cut off.
std::optional<int64_t> wholeOf(const StoredValue& value) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (value.element == "integer" || value.element == "string") return wholly<int64_t>(value.text);
  const std::optional<double> number = numberOf(value);
  if (!number || *number < -kLimit || *number >= kLimit) return std::nullopt;
  return static_cast<int64_t>(*number);
}

}  // namespace

std::string StoredValue::shown() const {
  if (element == "true" || element == "false") return element;
  if (element == "integer" || element == "real") return text;
  if (element == "string") return '"' + text + '"';
  return '<' + element + '>';
}

std::optional<StoredValue> typedValue(const PreferenceKey& key, std::string_view text, std::string& error) {
  const std::string name(key.name);
  const std::string given = '"' + std::string(text) + '"';
  switch (key.type) {
    case PreferenceType::boolean:
      if (const auto value = spelledBool(std::string(text)))
        return StoredValue{*value ? "true" : "false", ""};
      error = name + " takes true or false, not " + given;
      return std::nullopt;
    case PreferenceType::integer: {
      const auto value = wholly<int64_t>(text);
      if (value && *value >= leastThatMeans(key) && *value <= key.most)
        return StoredValue{"integer", std::to_string(*value)};
      error = name + " takes a whole number from " + range(key) + ", not " + given;
      return std::nullopt;
    }
    case PreferenceType::real:
    case PreferenceType::positive:
    case PreferenceType::seconds: {
      const auto number = wholly<double>(text);
      StoredValue value{"real", number ? realText(*number) : ""};
      const bool isSeconds = key.type == PreferenceType::seconds;
      const bool isMeant = isAbove0(key) ? number > 0.0 : number >= (isSeconds ? 1.0 : 0.0);
      if (isMeant && answers(value, key)) return value;
      const std::string meant = isSeconds ? "from " + range(key) : isAbove0(key) ? "above 0" : "from 0";
      error = name + " takes a number " + meant + ", not " + given;
      return std::nullopt;
    }
  }
  return std::nullopt;
}

bool answers(const StoredValue& value, const PreferenceKey& key) {
  const auto inRange = [&key](std::optional<int64_t> number) {
    return number && *number >= key.least && *number <= key.most;
  };
  switch (key.type) {
    case PreferenceType::boolean:
      return value.element == "string" ? spelledBool(value.text).has_value() : numberOf(value).has_value();
    case PreferenceType::integer:
      return inRange(wholeOf(value));
    case PreferenceType::real:
      return numberOf(value).has_value();
    case PreferenceType::positive:
      return numberOf(value).value_or(0) > 0;
    case PreferenceType::seconds:
      return numberOf(value) && inRange(wholeOf(value));
  }
  return false;
}

}  // namespace quorvelctl
