#include "tools/preferences/preference_file.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "plist/limits.h"
#include "plist/xml_form.h"
#include "tools/base/files.h"

namespace quorvelctl {
namespace {

constexpr std::string_view kEmptyList =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n</dict>\n</plist>\n";

std::string atLine(std::string_view text, ptrdiff_t offset, const std::string& reason) {
  const auto known = std::clamp<ptrdiff_t>(offset, 0, std::ssize(text));
  return "line " + std::to_string(1 + std::count(text.begin(), text.begin() + known, '\n')) + ": " + reason;
}

/// All the text of an element, which a comment or a CDATA section may have cut into pieces.
std::string textOf(const pugi::xml_node& element) {
  std::string text;
  for (const pugi::xml_node& child : element) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) text += child.value();
  }
  return text;
}

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

/// A hexadecimal number, "-0x9", in decimal; anything else as it is.
std::string inDecimal(const std::string& number) {
  const size_t prefix = number.starts_with('-') || number.starts_with('+') ? 1 : 0;
  if (number.compare(prefix, 2, "0x") != 0 && number.compare(prefix, 2, "0X") != 0) return number;
  const char* const digits = number.c_str() + prefix + 2;
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(digits, number.c_str() + number.size(), value, 16);
  if (error != std::errc() || *end != '\0') return number;
  return (number.starts_with('-') ? "-" : "") + std::to_string(value);
}

pugi::xml_node elementAt(pugi::xml_node node) {
  while (node && node.type() != pugi::node_element) node = node.next_sibling();
  return node;
}

}  // namespace

std::optional<PreferenceFile> PreferenceFile::parse(std::string_view bytes, std::string& error) {
  const std::optional<std::string> text = plist::xmlForm(bytes.empty() ? kEmptyList : bytes, error);
  if (!text) return std::nullopt;
  PreferenceFile file;
  const pugi::xml_parse_result result = file.document_.load_buffer(
      text->data(), text->size(), pugi::parse_full | pugi::parse_ws_pcdata, pugi::encoding_utf8);
  if (!result) {
    error = atLine(*text, result.offset, result.description());
    return std::nullopt;
  }
  if (!file.index(error, *text)) return std::nullopt;
  return file;
}

bool PreferenceFile::index(std::string& error, std::string_view text) {
  const pugi::xml_node root = document_.document_element();
  dictionary_ = elementAt(root.first_child());
  if (std::string_view(root.name()) != "plist" || std::string_view(dictionary_.name()) != "dict" ||
      elementAt(dictionary_.next_sibling())) {
    error = atLine(text, root.offset_debug(), "not a <plist> with one <dict> in it");
    return false;
  }
  for (pugi::xml_node key = elementAt(dictionary_.first_child()); key;) {
    const pugi::xml_node value = elementAt(key.next_sibling());
    if (std::string_view(key.name()) != "key" || !value) {
      error = atLine(text, key.offset_debug(), "a <key> and its value are expected");
      return false;
    }
    values_[textOf(key)] = value;
    key = elementAt(value.next_sibling());
  }
  return true;
}

std::optional<PreferenceFile> PreferenceFile::load(const std::string& path, std::string& error) {
  std::error_code code;
  const std::optional<std::string> text = readFile(path, plist::kMaxBytes, code);
  if (!text && code != std::errc::no_such_file_or_directory) {
    error = "can't read " + path + ": " + code.message();
    return std::nullopt;
  }
  std::optional<PreferenceFile> file = parse(text.value_or(""), error);
  if (!file) error = path + " is no property list, " + error + "; mend it, or move it away";
  return file;
}

std::optional<StoredValue> PreferenceFile::get(std::string_view key) const {
  const auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  const std::string element = found->second.name();
  std::string text = textOf(found->second);
  if (element == "integer") return StoredValue{element, inDecimal(trimmed(text))};
  return StoredValue{element, element == "string" ? std::move(text) : trimmed(text)};
}

void PreferenceFile::set(std::string_view key, const StoredValue& value) {
  const auto found = values_.find(key);
  pugi::xml_node element;
  if (found == values_.end()) {
    dictionary_.append_child(pugi::node_pcdata).set_value("\t");
    dictionary_.append_child("key").text().set(std::string(key).c_str());
    dictionary_.append_child(pugi::node_pcdata).set_value("\n\t");
    element = dictionary_.append_child(value.element.c_str());
    dictionary_.append_child(pugi::node_pcdata).set_value("\n");
    values_[std::string(key)] = element;
  } else {
    element = found->second;
    element.remove_children();
    element.set_name(value.element.c_str());
  }
  if (!value.text.empty()) element.text().set(value.text.c_str());
}

bool PreferenceFile::unset(std::string_view key) {
  if (values_.erase(std::string(key)) == 0) return false;
  for (pugi::xml_node child = dictionary_.first_child(); child;) {
    const pugi::xml_node name = child;
    child = child.next_sibling();
    if (std::string_view(name.name()) != "key" || textOf(name) != key) continue;
    const pugi::xml_node value = elementAt(name.next_sibling());
    child = value.next_sibling();
    const pugi::xml_node blankBefore = name.previous_sibling();
    if (blankBefore.type() == pugi::node_pcdata) dictionary_.remove_child(blankBefore);
    for (pugi::xml_node part = name; part && part != child;) {
      const pugi::xml_node next = part.next_sibling();
      if (part.type() != pugi::node_comment) dictionary_.remove_child(part);
      part = next;
    }
  }
  return true;
}

std::string PreferenceFile::text() const {
  struct Writer final : pugi::xml_writer {
    void write(const void* data, size_t size) override { text.append(static_cast<const char*>(data), size); }
    std::string text;
  } writer;
  for (const pugi::xml_node& node : document_) {
    node.print(writer, "", pugi::format_raw, pugi::encoding_utf8);
    writer.text += '\n';
  }
  return std::move(writer.text);
}

}  // namespace quorvelctl
