#include "kelvane/report/json_writer.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <string>

namespace kelvane {
namespace {

/// Length of the well-formed UTF-8 sequence that `text` starts with (RFC 3629), 0 if there is none.
size_t utf8SequenceLength(std::string_view text) {
  auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
  auto continues = [&](size_t i) { return (byte(i) & 0xC0) == 0x80; };
  unsigned first = byte(0);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return continues(1) ? 2 : 0;
  if (first >= 0xE0 && first <= 0xEF) {
    bool overlong = first == 0xE0 && byte(1) < 0xA0;
    bool surrogate = first == 0xED && byte(1) >= 0xA0;
    return !overlong && !surrogate && continues(1) && continues(2) ? 3 : 0;
  }
  if (first >= 0xF0 && first <= 0xF4) {
    bool overlong = first == 0xF0 && byte(1) < 0x90;
    bool beyond = first == 0xF4 && byte(1) >= 0x90;
    return !overlong && !beyond && continues(1) && continues(2) && continues(3) ? 4 : 0;
  }
  return 0;
}

}  // namespace

void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (hasMember_.back()) file_.write(hasMember_.size() <= 3 ? ",\n" : ",");
  hasMember_.back() = true;
}

void JsonWriter::beginObject() {
  separate();
  file_.write('{');
  hasMember_.push_back(false);
}

void JsonWriter::endObject() {
  hasMember_.pop_back();
  file_.write('}');
}

void JsonWriter::beginArray() {
  separate();
  file_.write('[');
  hasMember_.push_back(false);
}

void JsonWriter::endArray() {
  hasMember_.pop_back();
  file_.write(']');
}

void JsonWriter::key(std::string_view name) {
  separate();
  writeString(name);
  file_.write(':');
  afterKey_ = true;
}

void JsonWriter::value(std::string_view text) {
  separate();
  writeString(text);
}

void JsonWriter::raw(std::string_view json) {
  separate();
  file_.write(json);
}

void JsonWriter::memberMicroseconds(std::string_view name, uint64_t nanoseconds) {
  key(name);
  writeThousandths(nanoseconds);
}

void JsonWriter::memberMilliseconds(std::string_view name, uint64_t nanoseconds) {
  key(name);
  writeThousandths(nanoseconds / 1000);
}

void JsonWriter::memberPercent(std::string_view name, double percent) {
  std::array<char, 32> text;
  auto end = std::to_chars(text.data(), text.data() + text.size(), percent, std::chars_format::fixed, 2).ptr;
  key(name);
  raw({text.data(), end});
}

void JsonWriter::writeThousandths(uint64_t thousandths) {
  std::array<char, 32> text;
  char* end = std::to_chars(text.data(), text.data() + text.size(), thousandths / 1000).ptr;
  auto rest = static_cast<unsigned>(thousandths % 1000);
  *end++ = '.';
  for (unsigned digit : {rest / 100, rest / 10 % 10, rest % 10}) *end++ = static_cast<char>('0' + digit);
  raw({text.data(), end});
}

void JsonWriter::writeSigned(int64_t number) {
  raw(std::to_string(number));
}
void JsonWriter::writeUnsigned(uint64_t number) {
  raw(std::to_string(number));
}

void JsonWriter::writeString(std::string_view text) {
  file_.write('"');
  while (!text.empty()) {
    size_t length = utf8SequenceLength(text);
    auto first = static_cast<unsigned char>(text[0]);
    if (length == 0) {
      file_.write("\xEF\xBF\xBD");
      length = 1;
    } else if (first == '"' || first == '\\') {
      file_.write('\\');
      file_.write(text[0]);
    } else if (first < 0x20 || first == 0x7F) {
      std::array<char, 8> escape;
      snprintf(escape.data(), escape.size(), "\\u%04x", first);
      file_.write({escape.data(), 6});
    } else {
      file_.write(text.substr(0, length));
    }
    text.remove_prefix(length);
  }
  file_.write('"');
}

}  // namespace kelvane
