#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace quorveld::platform {

/// A value of the store that is neither a boolean, a number nor a text: it answers no conversion.
struct OpaquePreference {
  std::string what;  ///< for people: "an array"

  bool operator==(const OpaquePreference&) const = default;
};

/// One preference value. Finite numbers and booleans answer every conversion; a text answers those that it
/// spells in full.
class PreferenceValue {
 public:
  using Variant = std::variant<bool, int64_t, double, std::string, OpaquePreference>;

  PreferenceValue(Variant value) : value_(std::move(value)) {}  // NOLINT(google-explicit-constructor)

  /// "true", "yes" and "1" are true, "false", "no" and "0" false, in any case; a number is true when it isn't
  /// 0.
  std::optional<bool> asBool() const;
  /// A real number is truncated; one outside the type's range answers nothing.
  std::optional<int64_t> asInt() const;
  std::optional<double> asDouble() const;

  const Variant& variant() const { return value_; }
  bool operator==(const PreferenceValue&) const = default;

 private:
  Variant value_;
};

using PreferenceDictionary = std::map<std::string, PreferenceValue, std::less<>>;

/// The preferences of user "mobile" on any host, by domain, and the managed-configuration files. Work queue
/// only.
class PreferencesStore {
 public:
  virtual ~PreferencesStore() = default;

  /// As of the last `synchronise` and the sets since.
  virtual std::optional<PreferenceValue> value(std::string_view key, std::string_view domain) = 0;

  /// Sets a value in memory; `synchronise` writes it.
  virtual void set(std::string_view key, PreferenceValue value, std::string_view domain) = 0;
  virtual void remove(std::string_view key, std::string_view domain) = 0;

  /// Writes what was set and reads what others wrote, of this domain alone. A failure is logged; the values
  /// at hand stay.
  virtual void synchronise(std::string_view domain) = 0;

  /// The property list at `path`: empty when it is missing or can't be read (then logged).
  virtual PreferenceDictionary managedDictionary(std::string_view path) = 0;
};

}  // namespace quorveld::platform
