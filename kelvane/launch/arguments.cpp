#include "kelvane/launch/arguments.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

constexpr std::string_view kNames = "names=";
constexpr std::string_view kMin = "min=";
constexpr std::string_view kMax = "max=";
constexpr std::string_view kLaunched = "launched=";
constexpr std::string_view kConnected = "connected=";
constexpr std::string_view kNotLooking = "notlooking=";

template <typename Number>
bool readNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

bool readTicks(std::string_view text, const char* key, std::vector<kelvane_option>& options) {
  kelvane_option option{key, KELVANE_UINT64, {}};
  const bool isNumber = readNumber(text, option.value.uint64);
  options.push_back(option);
  return isNumber;
}

}  // namespace

std::string reasonOf(const kelvane_options* options) {
  std::string reason;
  for (size_t i = 0; options && i < options->count; i++) {
    const kelvane_option& option = options->options[i];
    if (!option.key || option.type != KELVANE_STRING ||
        std::strcmp(option.key, KELVANE_KEY_REASON_STRING) != 0)
      continue;
    const char* text = option.value.string ? option.value.string : "";
    reason.assign(text, strnlen(text, kMaxHeaderBytes + 1));
  }
  return reason;
}

std::vector<std::string> argumentsOf(const DumpRequest& request, const std::string& notLooking) {
  std::vector<std::string> arguments = {std::string(kNames) + (request.symbolicate ? "1" : "0")};
  if (request.minTicks) arguments.push_back(std::string(kMin) + std::to_string(*request.minTicks));
  if (request.maxTicks) arguments.push_back(std::string(kMax) + std::to_string(*request.maxTicks));
  if (request.launch) {
    arguments.push_back(std::string(kLaunched) + std::to_string(request.launch->pid));
    arguments.push_back(std::string(kConnected) + std::to_string(request.launch->connected_ticks));
  }
  if (!notLooking.empty()) arguments.push_back(std::string(kNotLooking) + notLooking);
  return arguments;
}

std::optional<Order> readOrder(const std::string& reason, const std::vector<std::string>& arguments) {
  Order order;
  kelvane_launch launch{};
  std::vector<kelvane_option> options = {{KELVANE_KEY_REASON_STRING, KELVANE_STRING, {}}};
  options[0].value.string = reason.c_str();
  for (const std::string_view argument : arguments) {
    if (argument == "names=0" || argument == "names=1") {
      kelvane_option option{KELVANE_KEY_NO_SYMBOLICATE, KELVANE_BOOL, {}};
      option.value.boolean = argument.back() == '0';
      options.push_back(option);
    } else if (argument.starts_with(kMin)) {
      if (!readTicks(argument.substr(kMin.size()), KELVANE_KEY_MIN_TIMESTAMP, options)) return std::nullopt;
    } else if (argument.starts_with(kMax)) {
      if (!readTicks(argument.substr(kMax.size()), KELVANE_KEY_MAX_TIMESTAMP, options)) return std::nullopt;
    } else if (argument.starts_with(kLaunched)) {
      if (!readNumber(argument.substr(kLaunched.size()), launch.pid)) return std::nullopt;
    } else if (argument.starts_with(kConnected)) {
      if (!readNumber(argument.substr(kConnected.size()), launch.connected_ticks)) return std::nullopt;
    } else if (argument.starts_with(kNotLooking)) {
      order.notLooking = argument.substr(kNotLooking.size());
    } else {
      return std::nullopt;
    }
  }
  const kelvane_options all{options.size(), options.data()};
  order.request = parseRequest(&all);
  nameLaunch(launch, order.request);
  return order;
}

}  // namespace kelvane
