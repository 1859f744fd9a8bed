// The header of a report, which holds names that applications choose. What is taken over of it is JSON.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "kelvane/report/dump_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string reason(reinterpret_cast<const char*>(data), size);
  const std::array<kelvane_option, 3> options = {{
      {.key = KELVANE_KEY_REASON_STRING, .type = KELVANE_STRING, .value = {.string = reason.c_str()}},
      {.key = KELVANE_KEY_MIN_TIMESTAMP, .type = KELVANE_UINT64, .value = {.uint64 = size}},
      {.key = KELVANE_KEY_MAX_TIMESTAMP, .type = KELVANE_UINT64, .value = {.uint64 = 64}},
  }};
  const kelvane_options all = {.count = options.size(), .options = options.data()};
  const kelvane::DumpRequest request = kelvane::parseRequest(&all);
  for (const auto& [key, json] : request.header) {
    if (!nlohmann::json::accept(json)) std::abort();
  }
  if (request.hang && request.hang->start > request.hang->end) std::abort();
  if (request.pid && *request.pid <= 0) std::abort();
  return 0;
}
