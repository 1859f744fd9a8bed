#include "platform/linux/json_serializer.h"

#include <nlohmann/json.hpp>
#include <type_traits>

namespace quorveld::linux_platform {

namespace {

using Json = nlohmann::ordered_json;

Json fromDictionary(const platform::Dictionary& dictionary);

Json fromValue(const platform::Value& value) {
  const auto convert = [](const auto& data) -> Json {
    using Data = std::decay_t<decltype(data)>;
    if constexpr (std::is_same_v<Data, platform::Dictionary>) {
      return fromDictionary(data);
    } else if constexpr (std::is_same_v<Data, platform::Array>) {
      Json array = Json::array();
      for (const platform::Value& element : data) array.push_back(fromValue(element));
      return array;
    } else {
      return data;
    }
  };
  return std::visit(convert, value.data);
}

Json fromDictionary(const platform::Dictionary& dictionary) {
  Json object = Json::object();
  for (const auto& [key, value] : dictionary) object[key] = fromValue(value);
  return object;
}

}  // namespace

std::optional<std::string> toJson(const platform::Dictionary& dictionary, std::string& error) {
  try {
    return fromDictionary(dictionary).dump();
  } catch (const Json::exception& exception) {
    error = exception.what();
    return std::nullopt;
  }
}

}  // namespace quorveld::linux_platform
