#include "plist/binary_property_list.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "plist/limits.h"
#include "plist/xml_writing.h"

namespace plist {

namespace {

constexpr std::string_view kFamily = "bplist";
constexpr std::string_view kHeader = "bplist00";
constexpr size_t kTrailerBytes = 32;

/// The upper half of an object's first byte; the lower one is its length, or which of several it is.
enum Kind : uint8_t {
  kSimple = 0x0,
  kInteger = 0x1,
  kReal = 0x2,
  kDate = 0x3,
  kData = 0x4,
  kAscii = 0x5,
  kUtf16 = 0x6,
  kUid = 0x8,
  kArray = 0xA,
  kOrderedSet = 0xB,
  kSet = 0xC,
  kDictionary = 0xD,
};

constexpr uint8_t kNull = 0x00;
constexpr uint8_t kFalse = 0x08;
constexpr uint8_t kTrue = 0x09;

/// At most 8 bytes.
uint64_t bigEndian(std::string_view bytes) {
  uint64_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

std::string base64(std::string_view bytes) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    const uint64_t bits = bigEndian(group) << 8 * (3 - group.size());
    for (size_t digit = 0; digit < 4; ++digit) {
      text += digit <= group.size() ? kDigits[bits >> (18 - 6 * digit) & 63] : '=';
    }
  }
  return text;
}

/// Nothing for an unpaired surrogate.
std::optional<std::string> utf8Of(std::string_view utf16) {
  std::string text;
  for (size_t at = 0; at < utf16.size(); at += 2) {
    auto code = static_cast<uint32_t>(bigEndian(utf16.substr(at, 2)));
    if (code >= 0xD800 && code < 0xE000) {
      at += 2;
      const auto low = at < utf16.size() ? static_cast<uint32_t>(bigEndian(utf16.substr(at, 2))) : 0;
      if (code >= 0xDC00 || low < 0xDC00 || low >= 0xE000) return std::nullopt;
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    }
    const auto follow = [&](unsigned shift) { text += static_cast<char>(0x80 | (code >> shift & 0x3F)); };
    if (code < 0x80) {
      text += static_cast<char>(code);
    } else if (code < 0x800) {
      text += static_cast<char>(0xC0 | code >> 6);
      follow(0);
    } else if (code < 0x10000) {
      text += static_cast<char>(0xE0 | code >> 12);
      follow(6);
      follow(0);
    } else {
      text += static_cast<char>(0xF0 | code >> 18);
      follow(12);
      follow(6);
      follow(0);
    }
  }
  return text;
}

/// `seconds` since the beginning of 2001, UTC. Nothing for a year that doesn't have four digits.
std::optional<std::string> dateText(double seconds) {
  using namespace std::chrono;
  constexpr double kFarther = 4e11;  // than any such year
  if (!(std::abs(seconds) < kFarther)) return std::nullopt;
  const sys_seconds time =
      sys_days{2001y / January / 1} + std::chrono::seconds(static_cast<int64_t>(std::floor(seconds)));
  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  if (date.year() < 1y || date.year() > 9999y) return std::nullopt;
  const hh_mm_ss clock(time - day);
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text.data();
}

/// One list being written as XML. A method that fails has set `error_`.
///
/// Invariant: `visits_` + `xml_` only grow, with each value by one at least, and end the work when they
/// exceed kMaxBytes: a list that is small because its values refer to each other many times over costs no
/// more than a large one.
class Writer {
 public:
  Writer(std::string_view bytes, std::string& error) : bytes_(bytes), error_(error) {}

  std::optional<std::string> write() {
    if (!readTrailer()) return std::nullopt;
    const std::optional<Object> top = object(top_, bytes_.size() - kTrailerBytes);
    if (!top) return std::nullopt;
    if (top->kind != kDictionary) {
      fail(top->at, "the outermost value is no dictionary");
      return std::nullopt;
    }
    xml_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
    if (!writeEntries(*top, 1)) return std::nullopt;
    xml_ += "</dict>\n</plist>\n";
    if (!affordable(top->at)) return std::nullopt;
    return std::move(xml_);
  }

 private:
  /// An object's first byte and length, and where in the file its data begins.
  struct Object {
    size_t at;
    uint8_t first;
    Kind kind;
    uint64_t length;  // as the first byte says, or the number behind it
    size_t data;
  };

  bool fail(size_t at, const std::string& reason) {
    error_ = "byte " + std::to_string(at) + ": " + reason;
    return false;
  }

  bool affordable(size_t at) {
    if (visits_ + xml_.size() <= kMaxBytes) return true;
    return fail(at, "longer than " + std::to_string(kMaxBytes) + " bytes as XML");
  }

  bool readTrailer() {
    if (!bytes_.starts_with(kHeader))
      return fail(kFamily.size(), "a binary property list of another version than 00");
    if (bytes_.size() < kHeader.size() + kTrailerBytes) return fail(bytes_.size(), "the trailer is missing");
    const size_t at = bytes_.size() - kTrailerBytes;
    const std::string_view trailer = bytes_.substr(at);
    placeBytes_ = static_cast<uint8_t>(trailer[6]);
    referenceBytes_ = static_cast<uint8_t>(trailer[7]);
    count_ = bigEndian(trailer.substr(8, 8));
    top_ = bigEndian(trailer.substr(16, 8));
    places_ = bigEndian(trailer.substr(24, 8));
    if (placeBytes_ < 1 || placeBytes_ > 8 || referenceBytes_ < 1 || referenceBytes_ > 8) {
      return fail(at + 6, "the trailer's numbers have no length that a number can have");
    }
    if (places_ < kHeader.size() || places_ > at || count_ > (at - places_) / placeBytes_) {
      return fail(at + 8, "the table of objects lies outside the file");
    }
    return true;
  }

  /// The object of that number; `from` is where it was named.
  std::optional<Object> object(uint64_t number, size_t from) {
    if (number >= count_) {
      fail(from, "a reference to an object that isn't there");
      return std::nullopt;
    }
    const size_t place = places_ + number * placeBytes_;
    const uint64_t at = bigEndian(bytes_.substr(place, placeBytes_));
    if (at < kHeader.size() || at >= places_) {
      fail(place, "an object outside the objects");
      return std::nullopt;
    }
    const auto first = static_cast<uint8_t>(bytes_[at]);
    Object object{at, first, static_cast<Kind>(first >> 4), static_cast<uint64_t>(first & 0xF), at + 1};
    const bool counted = object.kind >= kData && object.kind != kUid;
    if (counted && object.length == 0xF && !readLength(object)) return std::nullopt;
    return object;
  }

  /// The length that didn't fit the first byte: an integer behind it.
  bool readLength(Object& object) {
    const auto first = object.data < places_ ? static_cast<uint8_t>(bytes_[object.data]) : uint8_t{0};
    const size_t size = size_t{1} << (first & 0xF);
    if (first >> 4 != kInteger || size > 8 || size >= places_ - object.data)
      return fail(object.at, "a length that is none");
    object.length = bigEndian(bytes_.substr(object.data + 1, size));
    object.data += 1 + size;
    return true;
  }

  /// The object's data: `count` times `size` bytes.
  std::optional<std::string_view> data(const Object& object, uint64_t count, size_t size) {
    if (count <= (places_ - object.data) / size) return bytes_.substr(object.data, count * size);
    fail(object.at, "data beyond the objects' end");
    return std::nullopt;
  }

  bool writeValue(const Object& object, int depth) {
    ++visits_;
    if (!affordable(object.at)) return false;
    if (depth > kMaxBinaryDepth) {
      return fail(object.at,
                  "nested deeper than " + std::to_string(kMaxBinaryDepth) + " levels, or within itself");
    }
    switch (object.kind) {
      case kSimple:
        return writeSimple(object);
      case kInteger:
      case kReal:
      case kDate:
      case kUid:
        return writeNumber(object);
      case kData:
      case kAscii:
      case kUtf16:
        return writeText(object);
      case kArray:
      case kOrderedSet:
      case kSet:
        return writeArray(object, depth);
      case kDictionary:
        xml_ += "<dict>";
        if (!writeEntries(object, depth)) return false;
        xml_ += "</dict>";
        return true;
    }
    return fail(object.at, "an object of no known kind");
  }

  bool writeSimple(const Object& object) {
    if (object.first == kNull) return true;
    if (object.first != kTrue && object.first != kFalse) return fail(object.at, "an object of no known kind");
    xml_ += object.first == kTrue ? "<true/>" : "<false/>";
    return true;
  }

  static bool isKnownSize(Kind kind, size_t size) {
    if (kind == kUid) return size <= 8;
    if (kind == kInteger) return size <= 16;
    return size == 8 || (size == 4 && kind == kReal);
  }

  bool writeNumber(const Object& object) {
    const bool isUid = object.kind == kUid;
    const size_t size = isUid ? object.length + 1 : size_t{1} << object.length;
    if (!isKnownSize(object.kind, size)) return fail(object.at, "a number of no known size");
    const auto bytes = data(object, 1, size);
    if (!bytes) return false;
    if (object.kind == kInteger) return writeInteger(object, *bytes);
    const uint64_t bits = bigEndian(*bytes);
    if (isUid) {
      xml_ += "<dict><key>UID</key><integer>" + std::to_string(bits) + "</integer></dict>";
      return true;
    }
    const double number = size == 4 ? static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(bits)))
                                    : std::bit_cast<double>(bits);
    if (object.kind == kReal) {
      xml_ += "<real>" + realText(number) + "</real>";
      return true;
    }
    const std::optional<std::string> date = dateText(number);
    if (!date) return fail(object.at, "a date outside the years 1 to 9999");
    xml_ += "<date>" + *date + "</date>";
    return true;
  }

  /// Of 8 bytes and more it has a sign.
  bool writeInteger(const Object& object, std::string_view bytes) {
    const bool wide = bytes.size() == 16;
    const uint64_t low = bigEndian(wide ? bytes.substr(8) : bytes);
    const auto asSigned = static_cast<int64_t>(low);
    uint64_t high = bytes.size() == 8 && asSigned < 0 ? UINT64_MAX : 0;
    if (wide) high = bigEndian(bytes.substr(0, 8));
    if (high != 0 && (high != UINT64_MAX || asSigned >= 0))
      return fail(object.at, "an integer beyond 64 bits");
    xml_ += "<integer>" + (high == 0 ? std::to_string(low) : std::to_string(asSigned)) + "</integer>";
    return true;
  }

  bool writeText(const Object& object) {
    if (object.kind == kData) {
      const auto bytes = data(object, object.length, 1);
      if (!bytes) return false;
      xml_ += "<data>" + base64(*bytes) + "</data>";
      return true;
    }
    const std::optional<std::string> text = textOf(object);
    if (!text) return false;
    xml_ += "<string>" + escaped(*text) + "</string>";
    return true;
  }

  std::optional<std::string> textOf(const Object& object) {
    const bool isAscii = object.kind == kAscii;
    const auto bytes = data(object, object.length, isAscii ? 1 : 2);
    if (!bytes) return std::nullopt;
    std::optional<std::string> text = isAscii ? std::string(*bytes) : utf8Of(*bytes);
    if (!text ||
        (isAscii && std::any_of(text->begin(), text->end(), [](char c) { return (c & 0x80) != 0; }))) {
      fail(object.at, isAscii ? "a text that is not in ASCII" : "a text that is not in UTF-16");
      return std::nullopt;
    }
    if (text->find('\0') != std::string::npos) {
      fail(object.at, "a text with a NUL in it");
      return std::nullopt;
    }
    return text;
  }

  bool writeArray(const Object& object, int depth) {
    const auto references = data(object, object.length, referenceBytes_);
    if (!references) return false;
    xml_ += "<array>";
    for (size_t at = 0; at < references->size(); at += referenceBytes_) {
      const std::optional<Object> element = referred(*references, at);
      if (!element || !writeValue(*element, depth + 1)) return false;
    }
    xml_ += "</array>";
    return true;
  }

  /// A dictionary's keys come first, then its values. Those of the outermost one stand on lines of their own.
  bool writeEntries(const Object& object, int depth) {
    const auto references = data(object, object.length, 2 * referenceBytes_);
    if (!references) return false;
    const size_t half = references->size() / 2;
    for (size_t at = 0; at < half; at += referenceBytes_) {
      const std::optional<Object> key = referred(*references, at);
      const std::optional<Object> value = key ? referred(*references, half + at) : std::nullopt;
      if (!value) return false;
      if (key->kind != kAscii && key->kind != kUtf16) return fail(key->at, "a key that is no text");
      if (value->first != kNull) {
        const std::optional<std::string> name = textOf(*key);
        if (!name) return false;
        xml_ += (depth == 1 ? "\t<key>" : "<key>") + escaped(*name) + (depth == 1 ? "</key>\n\t" : "</key>");
      }
      if (!writeValue(*value, depth + 1)) return false;
      if (value->first != kNull && depth == 1) xml_ += '\n';
    }
    return true;
  }

  /// The object whose number stands at `at` in `references`.
  std::optional<Object> referred(std::string_view references, size_t at) {
    return object(bigEndian(references.substr(at, referenceBytes_)),
                  static_cast<size_t>(references.data() - bytes_.data()) + at);
  }

  const std::string_view bytes_;
  std::string& error_;
  size_t placeBytes_ = 0;
  size_t referenceBytes_ = 0;
  uint64_t count_ = 0;
  uint64_t top_ = 0;
  size_t places_ = 0;  // where the table begins: the objects' end
  size_t visits_ = 0;
  std::string xml_;
};

}  // namespace

bool isBinaryPropertyList(std::string_view bytes) {
  return bytes.starts_with(kFamily);
}

std::optional<std::string> xmlOfBinary(std::string_view bytes, std::string& error) {
  return Writer(bytes, error).write();
}

}  // namespace plist
