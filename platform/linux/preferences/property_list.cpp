#include "platform/linux/preferences/property_list.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <pugixml.hpp>
#include <utility>

#include "plist/xml_form.h"
#include "plist/xml_writing.h"

namespace quorveld::linux_platform {

namespace {

using platform::OpaquePreference;
using platform::PreferenceValue;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// Just behind the next `mark` at or after `from`; the text's end when there is none.
size_t behind(std::string_view text, size_t from, std::string_view mark) {
  const size_t found = text.find(mark, from);
  return found == std::string_view::npos ? text.size() : found + mark.size();
}

/// Just behind the start tag at `at`. A '>' within an attribute's quotes does not end it.
size_t behindStartTag(std::string_view text, size_t at) {
  while (at < text.size() && text[at] != '>') {
    const char c = text[at++];
    if (c == '"' || c == '\'') at = behind(text, at, std::string_view(&c, 1));
  }
  return std::min(at + 1, text.size());
}

/// The element that starts at `start` in a well-formed text, as it stands there.
std::string_view elementAt(std::string_view text, size_t start) {
  size_t at = start;
  size_t depth = 0;
  while ((at = text.find('<', at)) < text.size()) {
    const std::string_view rest = text.substr(at);
    if (rest.starts_with("<!--")) {
      at = behind(text, at + 4, "-->");
    } else if (rest.starts_with("<![CDATA[")) {
      at = behind(text, at, "]]>");
    } else if (rest.starts_with("<?")) {
      at = behind(text, at, "?>");
    } else if (rest.starts_with("</")) {
      at = behind(text, at, ">");
      --depth;
    } else {
      at = behindStartTag(text, at);
      if (text[at - 2] != '/') ++depth;
    }
    if (depth == 0) break;
  }
  return text.substr(start, std::min(at, text.size()) - start);
}

/// All the text of an element, which a comment or a CDATA section may have cut into pieces.
std::string textOf(const pugi::xml_node& element) {
  std::string text;
  for (const pugi::xml_node& child : element) text += child.value();
  return text;
}

/// std::errc() and the number, or what is wrong with all of `text` as one. `base` holds for whole numbers.
template <typename Number, typename... Base>
std::errc parseNumber(std::string_view text, Number& number, Base... base) {
  if (text.starts_with("+-")) return std::errc::invalid_argument;
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base...);
  return end == text.data() + text.size() ? error : std::errc::invalid_argument;
}

/// One parse: knows the text, so that a complaint can name its line.
class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  std::variant<PropertyList, PropertyListError> parse() {
    pugi::xml_document document;
    constexpr unsigned kOptions = pugi::parse_default | pugi::parse_ws_pcdata_single;
    const pugi::xml_parse_result result =
        document.load_buffer(text_.data(), text_.size(), kOptions, pugi::encoding_utf8);
    if (!result) return errorAt(result.offset, result.description());

    const pugi::xml_node root = document.document_element();
    if (std::string_view(root.name()) != "plist") return errorAt(root, "the outermost element is no <plist>");
    const pugi::xml_node dictionary = root.first_child();
    if (std::string_view(dictionary.name()) != "dict" || dictionary.next_sibling()) {
      return errorAt(root, "<plist> holds something else than one <dict>");
    }
    PropertyList list;
    for (pugi::xml_node key = dictionary.first_child(); key; key = key.next_sibling().next_sibling()) {
      if (key.type() == pugi::node_pcdata && trimmed(key.value()).empty())
        break;  // all that an empty <dict> has
      const pugi::xml_node value = key.next_sibling();
      if (std::string_view(key.name()) != "key") return errorAt(key, "a <key> is missing");
      if (value.type() != pugi::node_element) return errorAt(key, "a <key> without a value");
      std::optional<PropertyListEntry> entry = entryOf(value);
      if (!entry) return errorAt(value, complaint_);
      list.insert_or_assign(textOf(key), *std::move(entry));
    }
    return list;
  }

 private:
  PropertyListError errorAt(ptrdiff_t offset, const std::string& reason) const {
    const auto known = static_cast<size_t>(std::clamp<ptrdiff_t>(offset, 0, std::ssize(text_)));
    const ptrdiff_t breaks = std::count(text_.begin(), text_.begin() + known, '\n');
    return {"line " + std::to_string(breaks + 1) + ": " + reason};
  }
  PropertyListError errorAt(const pugi::xml_node& node, const std::string& reason) const {
    return errorAt(node.offset_debug(), reason);
  }

  /// Nothing, with `complaint_` set, when the element is no value of a property list.
  std::optional<PropertyListEntry> entryOf(const pugi::xml_node& element) {
    const std::string_view name = element.name();
    if (name == "true") return PropertyListEntry{PreferenceValue::Variant(true), {}};
    if (name == "false") return PropertyListEntry{PreferenceValue::Variant(false), {}};
    if (name == "string") return PropertyListEntry{PreferenceValue::Variant(textOf(element)), {}};
    if (name == "integer") return integerOf(element);
    if (name == "real") return realOf(element);
    if (name == "date") return opaqueOf(element, "a date");
    if (name == "data") return opaqueOf(element, "data");
    if (name == "array") return opaqueOf(element, "an array");
    if (name == "dict") return opaqueOf(element, "a dictionary");
    complaint_ = "<" + std::string(name) + "> is no property-list value";
    return std::nullopt;
  }

  std::optional<PropertyListEntry> integerOf(const pugi::xml_node& element) {
    std::string text(trimmed(textOf(element)));
    const size_t prefix = text.find_first_not_of("+-");
    const bool isHex =
        prefix <= 1 && (text.compare(prefix, 2, "0x") == 0 || text.compare(prefix, 2, "0X") == 0);
    if (isHex) text.erase(prefix, 2);
    int64_t number = 0;
    const std::errc error = isHex && text.find_first_of("+-", prefix) != std::string::npos
                                ? std::errc::invalid_argument
                                : parseNumber(text, number, isHex ? 16 : 10);
    if (error == std::errc()) return PropertyListEntry{PreferenceValue::Variant(number), {}};
    if (error == std::errc::result_out_of_range) return opaqueOf(element, "an integer out of range");
    complaint_ = "<integer> holds no whole number";
    return std::nullopt;
  }

  std::optional<PropertyListEntry> realOf(const pugi::xml_node& element) {
    const std::string text = textOf(element);
    double number = 0;
    const std::errc error = parseNumber(trimmed(text), number);
    if (error == std::errc()) return PropertyListEntry{PreferenceValue::Variant(number), {}};
    if (error == std::errc::result_out_of_range) return opaqueOf(element, "a real number out of range");
    complaint_ = "<real> holds no number";
    return std::nullopt;
  }

  PropertyListEntry opaqueOf(const pugi::xml_node& element, const char* what) const {
    // The offset is that of the element's name, behind its '<'.
    const size_t start = static_cast<size_t>(std::max<ptrdiff_t>(element.offset_debug(), 1)) - 1;
    return {PreferenceValue::Variant(OpaquePreference{what}), std::string(elementAt(text_, start))};
  }

  std::string_view text_;
  std::string complaint_;
};

struct ValueFormatter {
  const PropertyListEntry& entry;

  std::string operator()(bool value) const { return value ? "<true/>" : "<false/>"; }
  std::string operator()(int64_t value) const { return "<integer>" + std::to_string(value) + "</integer>"; }
  std::string operator()(double value) const { return "<real>" + plist::realText(value) + "</real>"; }
  std::string operator()(const std::string& value) const {
    return "<string>" + plist::escaped(value) + "</string>";
  }
  std::string operator()(const OpaquePreference&) const { return entry.xml; }
};

}  // namespace

std::variant<PropertyList, PropertyListError> parsePropertyList(std::string_view bytes) {
  std::string error;
  const std::optional<std::string> text = plist::xmlForm(bytes, error);
  if (!text) return PropertyListError{std::move(error)};
  return Parser(*text).parse();
}

std::string formatPropertyList(const PropertyList& list) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
  for (const auto& [key, entry] : list) {
    const std::string value = std::visit(ValueFormatter{entry}, entry.value.variant());
    if (value.empty()) continue;
    text += "\t<key>" + plist::escaped(key) + "</key>\n\t" + value + "\n";
  }
  return text + "</dict>\n</plist>\n";
}

}  // namespace quorveld::linux_platform
