// The log of activations, in two files as it may come.
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tools/launches/activation.h"
#include "tools/launches/activation_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  constexpr uint64_t kPageBytes = 4096;
  quorvelctl::ActivationReader reader;
  reader.read(text.substr(0, size / 2));
  reader.read(text);
  for (const quorvelctl::Activation& activation : reader.activations()) {
    quorvelctl::activationText(activation, kPageBytes);
    quorvelctl::activationJson(activation)
        .dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  }
  return 0;
}
