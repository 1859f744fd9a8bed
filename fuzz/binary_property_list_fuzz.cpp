// Binary preference files may hold anything. Whatever becomes XML is a property list within the limit.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/linux/preferences/property_list.h"
#include "plist/binary_property_list.h"
#include "plist/limits.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using quorveld::linux_platform::parsePropertyList;
  using quorveld::linux_platform::PropertyList;
  std::string error;
  const std::optional<std::string> xml =
      plist::xmlOfBinary({reinterpret_cast<const char*>(data), size}, error);
  if (xml.has_value() != error.empty()) std::abort();
  if (!xml) return 0;
  if (xml->size() > plist::kMaxBytes || !std::holds_alternative<PropertyList>(parsePropertyList(*xml)))
    std::abort();
  return 0;
}
