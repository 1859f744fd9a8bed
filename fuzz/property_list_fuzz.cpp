// Preference files may hold anything. Whatever parses is written back as the same list.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "platform/linux/preferences/property_list.h"

namespace {

using quorveld::linux_platform::formatPropertyList;
using quorveld::linux_platform::parsePropertyList;
using quorveld::linux_platform::PropertyList;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto parsed = parsePropertyList({reinterpret_cast<const char*>(data), size});
  const PropertyList* list = std::get_if<PropertyList>(&parsed);
  if (!list) return 0;
  const std::string text = formatPropertyList(*list);
  const auto again = parsePropertyList(text);
  const PropertyList* second = std::get_if<PropertyList>(&again);
  if (!second || formatPropertyList(*second) != text) std::abort();
  return 0;
}
