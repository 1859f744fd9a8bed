#include "base/value_text.h"

#include <type_traits>

#include "base/text.h"

namespace quorveld {

namespace {

// Dictionaries and arrays are only ever built by this daemon, a few levels deep: the recursion is bounded.
std::string describeValue(const platform::Value& value) {
  return std::visit(
      [](const auto& data) -> std::string {
        using T = std::decay_t<decltype(data)>;
        if constexpr (std::is_same_v<T, bool>) {
          return data ? "1" : "0";
        } else if constexpr (std::is_same_v<T, double>) {
          return formatted("%.3f", data);
        } else if constexpr (std::is_arithmetic_v<T>) {
          return std::to_string(data);
        } else if constexpr (std::is_same_v<T, std::string>) {
          return data;
        } else if constexpr (std::is_same_v<T, platform::Array>) {
          std::string text = "(";
          for (const platform::Value& element : data) {
            if (text.size() > 1) text += ", ";
            text += describeValue(element);
          }
          return text + ")";
        } else {
          return describe(data);
        }
      },
      value.data);
}

}  // namespace

std::string describe(const platform::Dictionary& dictionary) {
  std::string text = "{";
  for (const auto& [key, value] : dictionary) text += key + " = " + describeValue(value) + "; ";
  return text + "}";
}

std::string describe(const platform::PreferenceValue& value) {
  constexpr size_t kMaxTextBytes = 64;
  return std::visit(
      [](const auto& data) -> std::string {
        using T = std::decay_t<decltype(data)>;
        if constexpr (std::is_same_v<T, bool>) {
          return data ? "true" : "false";
        } else if constexpr (std::is_same_v<T, double>) {
          return formatted("%g", data);
        } else if constexpr (std::is_arithmetic_v<T>) {
          return std::to_string(data);
        } else if constexpr (std::is_same_v<T, std::string>) {
          const std::string_view shown = cutAtCharacter(data, kMaxTextBytes);
          return '"' + std::string(shown) + (shown.size() < data.size() ? "..." : "") + '"';
        } else {
          return data.what;
        }
      },
      value.variant());
}

}  // namespace quorveld
