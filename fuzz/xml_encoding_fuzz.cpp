// Preference files may be in any encoding, or say that they are. What is converted is UTF-8 within the limit.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "base/text.h"
#include "plist/limits.h"
#include "plist/xml_encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::string error;
  const std::optional<std::string> text = plist::textInUtf8(bytes, error);
  if (text.has_value() != error.empty()) std::abort();
  if (!text || *text == bytes) return 0;
  if (text->size() > plist::kMaxBytes || !quorveld::isUtf8(*text)) std::abort();
  return 0;
}
