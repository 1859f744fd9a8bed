#include "kelvane/report/dump_request.h"

#include <array>
#include <climits>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

using Json = nlohmann::json;

constexpr std::array<const char*, 8> kHeaderKeys = {"Reason",   "ServiceName", "ProcessPath", "PID",
                                                    "ThreadID", "StartTime",   "EndTime",     "DisplayData"};

/// Far beyond any uptime; keeps every later conversion of ticks inside 64 bits.
constexpr uint64_t kMaxTicks = uint64_t{1} << 56;

const Omission kNoProcess{"process", "the header names none (PID 0)"};

std::optional<TickSpan> makeSpan(std::optional<uint64_t> start, std::optional<uint64_t> end) {
  if (!start || !end || *start == 0 || *start > *end || *end > kMaxTicks) return std::nullopt;
  return TickSpan{*start, *end};
}

/// The header as a JSON object, or a discarded value when it is none or is nested too deeply.
Json parseHeader(std::string_view text) {
  bool tooDeep = false;
  auto keep = [&tooDeep](int depth, Json::parse_event_t, Json&) {
    if (depth > kMaxHeaderDepth) tooDeep = true;
    return !tooDeep;
  };
  Json header = Json::parse(text, keep, /*allow_exceptions=*/false);
  return !tooDeep && header.is_object() ? header : Json(Json::value_t::discarded);
}

std::string textOf(const Json& header, const char* key) {
  auto found = header.find(key);
  return found != header.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::optional<int64_t> integerOf(const Json& header, const char* key) {
  auto found = header.find(key);
  if (found == header.end() || !found->is_number_integer()) return std::nullopt;
  return found->get<int64_t>();
}

void readHeader(const Json& header, DumpRequest& request) {
  for (const char* key : kHeaderKeys) {
    auto found = header.find(key);
    if (found == header.end()) {
      request.omissions.push_back({std::string("header key ") + key, "absent from the header"});
    } else {
      request.header.emplace_back(key, found->dump(-1, ' ', false, Json::error_handler_t::replace));
    }
  }
  request.reason = textOf(header, "Reason");
  request.serviceName = textOf(header, "ServiceName");
  request.processPath = textOf(header, "ProcessPath");
  request.threadId = integerOf(header, "ThreadID").value_or(0);
  auto pid = integerOf(header, "PID");
  if (pid && *pid > 0 && *pid <= INT_MAX) {
    request.pid = static_cast<pid_t>(*pid);
  } else if (pid == 0) {
    request.omissions.push_back(kNoProcess);
  } else {
    request.omissions.push_back({"process", "the header's PID is no process id"});
  }
  request.hang = makeSpan(integerOf(header, "StartTime"), integerOf(header, "EndTime"));
}

void readReason(const char* reason, DumpRequest& request) {
  size_t length = reason ? strnlen(reason, kMaxHeaderBytes + 1) : 0;
  if (length == 0) {
    request.omissions.push_back({"header", "no reason text was given"});
  } else if (length > kMaxHeaderBytes) {
    request.omissions.push_back({"header", "longer than " + std::to_string(kMaxHeaderBytes) + " bytes"});
  } else if (Json header = parseHeader({reason, length}); header.is_discarded()) {
    request.omissions.push_back({"header", "the reason text is no JSON object, or is nested too deeply"});
    request.rawReason.assign(reason, length);
  } else {
    readHeader(header, request);
  }
}

}  // namespace

DumpRequest parseRequest(const kelvane_options* options) {
  DumpRequest request;
  const char* reason = nullptr;
  for (size_t i = 0; options && i < options->count; i++) {
    const kelvane_option& option = options->options[i];
    if (!option.key) continue;
    std::string_view key = option.key;
    if (key == KELVANE_KEY_REASON_STRING && option.type == KELVANE_STRING) {
      reason = option.value.string;
    } else if (key == KELVANE_KEY_NO_SYMBOLICATE && option.type == KELVANE_BOOL) {
      request.symbolicate = !option.value.boolean;
    } else if (key == KELVANE_KEY_MIN_TIMESTAMP && option.type == KELVANE_UINT64) {
      request.minTicks = option.value.uint64;
    } else if (key == KELVANE_KEY_MAX_TIMESTAMP && option.type == KELVANE_UINT64) {
      request.maxTicks = option.value.uint64;
    }
  }
  readReason(reason, request);
  if (!request.hang) request.hang = makeSpan(request.minTicks, request.maxTicks);
  if (!request.hang) request.omissions.push_back({"hang interval", "no start and end that make a span"});
  return request;
}

void nameLaunch(const kelvane_launch& launch, DumpRequest& request) {
  const auto isNoProcess = [](const Omission& one) {
    return one.what == kNoProcess.what && one.why == kNoProcess.why;
  };
  if (launch.pid > 0 && std::erase_if(request.omissions, isNoProcess) > 0) request.launch = launch;
}

}  // namespace kelvane
