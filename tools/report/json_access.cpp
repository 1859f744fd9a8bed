#include "tools/report/json_access.h"

namespace quorvelctl {

const Json& member(const Json& object, const char* key) {
  static const Json kNone;
  if (!object.is_object()) return kNone;
  const auto found = object.find(key);
  return found == object.end() ? kNone : *found;
}

std::string textMember(const Json& object, const char* key) {
  const Json& value = member(object, key);
  return value.is_string() ? value.get<std::string>() : std::string();
}

double numberMember(const Json& object, const char* key) {
  const Json& value = member(object, key);
  return value.is_number() ? value.get<double>() : 0;
}

int64_t integerMember(const Json& object, const char* key) {
  constexpr double kBeyond = 9.2e18;  // a conversion from there on is undefined
  const Json& value = member(object, key);
  if (value.is_number_integer()) return value.get<int64_t>();
  const double number = numberMember(object, key);
  return number > -kBeyond && number < kBeyond ? static_cast<int64_t>(number) : 0;
}

}  // namespace quorvelctl
