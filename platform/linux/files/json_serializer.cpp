#include "platform/linux/files/json_serializer.h"

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
  // A key stands once in a dictionary, so none is looked for: that would take a walk over all of them each
  // time.
  Json::object_t members;
  members.reserve(dictionary.size());
  for (const auto& [key, value] : dictionary)
    members.Json::object_t::Container::emplace_back(key, fromValue(value));
  return members;
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
