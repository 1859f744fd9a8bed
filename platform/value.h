#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace quorveld::platform {

struct Value;
using Array = std::vector<Value>;
/// Keeps the order in which its keys were added; a key stands once.
using Dictionary = std::vector<std::pair<std::string, Value>>;

/// A value that can be serialised: what property lists and JSON have in common.
struct Value {
  Value() = default;
  /// A template, so that no compiler looks into Array and Dictionary before this type is complete.
  template <typename T>
  Value(T value) : data(std::move(value)) {}

  std::variant<bool, int64_t, uint64_t, double, std::string, Array, Dictionary> data;
};

}  // namespace quorveld::platform
