#include "plist/xml_form.h"

#include "plist/binary_property_list.h"
#include "plist/xml_encoding.h"

namespace plist {

std::optional<std::string> xmlForm(std::string_view bytes, std::string& error) {
  return isBinaryPropertyList(bytes) ? xmlOfBinary(bytes, error) : textInUtf8(bytes, error);
}

}  // namespace plist
