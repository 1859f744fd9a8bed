#include <charconv>

#include "base/text.h"
#include "tests/sim/sim_files.h"

namespace quorveld::sim {

namespace {

using platform::Value;

/// Writes values; `valid` falls when a text is no UTF-8.
struct JsonWriter {
  std::string out;
  bool valid = true;

  void text(const std::string& bytes) {
    valid = valid && isUtf8(bytes);
    out += '"';
    for (const char c : bytes) {
      static constexpr std::string_view kShort = "\"\\\b\f\n\r\t";
      static constexpr std::string_view kLetters = "\"\\bfnrt";
      if (const size_t at = kShort.find(c); at != std::string_view::npos) {
        (out += '\\') += kLetters[at];
      } else if (static_cast<uint8_t>(c) < 0x20) {
        constexpr std::string_view kHex = "0123456789abcdef";
        ((out += "\\u00") += kHex[static_cast<uint8_t>(c) >> 4]) += kHex[c & 15];
      } else {
        out += c;
      }
    }
    out += '"';
  }

  void operator()(bool value) { out += value ? "true" : "false"; }
  void operator()(int64_t value) { out += std::to_string(value); }
  void operator()(uint64_t value) { out += std::to_string(value); }
  void operator()(double value) {
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    out.append(buffer, end);
    if (out.find_first_of(".e", out.size() - static_cast<size_t>(end - buffer)) == std::string::npos)
      out += ".0";
  }
  void operator()(const std::string& value) { text(value); }
  void operator()(const platform::Array& array) {
    out += '[';
    for (const Value& value : array) {
      if (&value != array.data()) out += ',';
      std::visit(*this, value.data);
    }
    out += ']';
  }
  void operator()(const platform::Dictionary& dictionary) {
    out += '{';
    for (const auto& entry : dictionary) {
      if (&entry != dictionary.data()) out += ',';
      text(entry.first);
      out += ':';
      std::visit(*this, entry.second.data);
    }
    out += '}';
  }
};

}  // namespace

std::optional<std::string> toJson(const platform::Dictionary& dictionary) {
  JsonWriter writer;
  writer(dictionary);
  if (!writer.valid) return std::nullopt;
  return std::move(writer.out);
}

}  // namespace quorveld::sim
