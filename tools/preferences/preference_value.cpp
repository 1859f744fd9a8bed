#include "tools/preferences/preference_value.h"

#include <strings.h>

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

bool fitsInteger(double number) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  return number >= -kLimit && number < kLimit;
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
      if (value && *value >= key.least && *value <= key.most)
        return StoredValue{"integer", std::to_string(*value)};
      error = name + " takes a whole number from " + std::to_string(key.least) + " to " +
              std::to_string(key.most) + ", not " + given;
      return std::nullopt;
    }
    case PreferenceType::real: {
      const auto value = wholly<double>(text);
      if (value && std::isfinite(*value)) return StoredValue{"real", realText(*value)};
      error = name + " takes a number, not " + given;
      return std::nullopt;
    }
  }
  return std::nullopt;
}

bool answers(const StoredValue& value, PreferenceType type) {
  if (value.element == "true" || value.element == "false") return true;
  const bool isText = value.element == "string";
  if (!isText && value.element != "integer" && value.element != "real") return false;
  if (isText && type == PreferenceType::boolean) return spelledBool(value.text).has_value();
  if (isText && type == PreferenceType::integer) return wholly<int64_t>(value.text).has_value();
  const std::optional<double> number = wholly<double>(value.text);
  if (value.element == "integer" && !wholly<int64_t>(value.text)) return false;
  return number && (type != PreferenceType::integer || fitsInteger(*number));
}

}  // namespace quorvelctl
