#include "plist/binary_property_list.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

#include "plist/limits.h"

namespace plist {
namespace {

using namespace std::string_literals;

std::string bigEndian(uint64_t number, size_t bytes) {
  std::string text;
  for (size_t shift = 8 * bytes; shift > 0; shift -= 8) text += static_cast<char>(number >> (shift - 8));
  return text;
}

/// A binary list whose object 0 is outermost; references are of two bytes, places of four.
std::string listOf(const std::vector<std::string>& objects) {
  std::string bytes = "bplist00";
  std::string places;
  for (const std::string& object : objects) {
    places += bigEndian(bytes.size(), 4);
    bytes += object;
  }
  const size_t table = bytes.size();
  return bytes + places + std::string(6, '\0') + "\x04\x02" + bigEndian(objects.size(), 8) + bigEndian(0, 8) +
         bigEndian(table, 8);
}

/// An object of `kind` that holds references.
std::string holding(int kind, const std::vector<size_t>& references) {
  const size_t length = kind == 0xD ? references.size() / 2 : references.size();
  std::string object(1, static_cast<char>(kind << 4 | (length < 15 ? length : 15)));
  if (length >= 15) object += "\x12" + bigEndian(length, 4);
  for (const size_t reference : references) object += bigEndian(reference, 2);
  return object;
}

/// What the XML says of one value, which may refer to `others`: the first of these is object 3.
std::string xmlOf(const std::string& value, const std::vector<std::string>& others = {}) {
  std::vector<std::string> objects{holding(0xD, {1, 2}), "\x51k", value};
  objects.insert(objects.end(), others.begin(), others.end());
  std::string error;
  const std::optional<std::string> xml = xmlOfBinary(listOf(objects), error);
  if (!xml) return error;
  const std::string before =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n\t<key>k</key>\n\t";
  const std::string after = "\n</dict>\n</plist>\n";
  if (!xml->starts_with(before) || !xml->ends_with(after)) return *xml;
  return xml->substr(before.size(), xml->size() - before.size() - after.size());
}

TEST(BinaryPropertyList, WritesEveryKindOfValueAsXml) {
  const std::array<std::pair<std::string, std::string>, 28> cases{{
      {"\x08"s, "<false/>"},
      {"\x09"s, "<true/>"},
      {"\x10\xff"s, "<integer>255</integer>"},
      {"\x11\xff\xff"s, "<integer>65535</integer>"},
      {"\x12\xff\xff\xff\xff"s, "<integer>4294967295</integer>"},
      {"\x13\xff\xff\xff\xff\xff\xff\xff\xf9"s, "<integer>-7</integer>"},
      {"\x14"s + bigEndian(0, 8) + bigEndian(UINT64_MAX, 8), "<integer>18446744073709551615</integer>"},
      {"\x14"s + bigEndian(UINT64_MAX, 8) + bigEndian(uint64_t{1} << 63, 8),
       "<integer>-9223372036854775808</integer>"},
      {"\x22\x3f\xc0\0\0"s, "<real>1.5</real>"},
      {"\x23\x3f\xb9\x99\x99\x99\x99\x99\x9a"s, "<real>0.1</real>"},
      {"\x23\x7f\xf0\0\0\0\0\0\0"s, "<real>inf</real>"},
      {"\x33\0\0\0\0\0\0\0\0"s, "<date>2001-01-01T00:00:00Z</date>"},
      {"\x33\xbf\xe0\0\0\0\0\0\0"s, "<date>2000-12-31T23:59:59Z</date>"},  // half a second before it
      {"\x33\xc2\x2d\x63\xc3\x7f\x00\x00\x00"s, "<date>0001-01-01T00:00:00Z</date>"},
      {"\x40"s, "<data></data>"},
      {"\x41\xff"s, "<data>/w==</data>"},
      {"\x42\x00\x01"s, "<data>AAE=</data>"},
      {"\x44Many"s, "<data>TWFueQ==</data>"},
      {"\x54<&>\r"s, "<string>&lt;&amp;&gt;&#13;</string>"},
      {"\x5f\x10\x10sixteen letters."s, "<string>sixteen letters.</string>"},
      {"\x64\0A\0\xe9\x20\xac\xff\xff"s, "<string>A\u00e9\u20ac\uffff</string>"},
      {"\x62\xd8\x3d\xde\x00"s, "<string>\U0001F600</string>"},
      {"\x81\x01\x02"s, "<dict><key>UID</key><integer>258</integer></dict>"},
      {holding(0xA, {3, 4, 3}), "<array><true/><array></array><true/></array>"},
      {holding(0xC, {3}), "<array><true/></array>"},
      {holding(0xA, std::vector<size_t>(15, 5)), "<array></array>"},  // of nulls
      {holding(0xD, {1, 6, 3, 3}), "<dict><key>k</key><true/><key>\u00e9</key><true/></dict>"},
      {holding(0xD, {1, 6, 5, 3}), "<dict><key>\u00e9</key><true/></dict>"},
  }};
  for (const auto& [value, xml] : cases) {
    EXPECT_EQ(xmlOf(value, {"\x09"s, holding(0xA, {}), "\0"s, "\x61\0\xe9"s}), xml);
  }
}

TEST(BinaryPropertyList, NamesThePlaceOfWhatIsWrong) {
  // The value is behind the header, the dictionary (5 bytes) and the key (2 bytes), at byte 15.
  const std::array<std::pair<std::string, const char*>, 17> cases{{
      {"\x0f"s, "byte 15: an object of no known kind"},
      {"\x70"s, "byte 15: an object of no known kind"},
      {"\x15"s + std::string(32, '\0'), "byte 15: a number of no known size"},
      {"\x21\0\0"s, "byte 15: a number of no known size"},
      {"\x32\0\0\0\0"s, "byte 15: a number of no known size"},
      {"\x14"s + bigEndian(1, 8) + bigEndian(0, 8), "byte 15: an integer beyond 64 bits"},
      {"\x14"s + bigEndian(UINT64_MAX, 8) + bigEndian(0, 8), "byte 15: an integer beyond 64 bits"},
      {"\x33\x7f\xf8\0\0\0\0\0\0"s, "byte 15: a date outside the years 1 to 9999"},
      {"\x33\x42\x4d\x62\xd2\x3c\x80\x00\x00"s, "byte 15: a date outside the years 1 to 9999"},
      {"\x51\xe9"s, "byte 15: a text that is not in ASCII"},
      {"\x61\xd8\x3d"s, "byte 15: a text that is not in UTF-16"},
      {"\x62\xd8\x3d\0A"s, "byte 15: a text that is not in UTF-16"},
      {"\x52"s + "a\0"s, "byte 15: a text with a NUL in it"},
      {"\x52"s + "a"s, "byte 15: data beyond the objects' end"},
      {"\x5f\x51"s, "byte 15: a length that is none"},
      {"\x5f\x13"s + bigEndian(UINT64_MAX, 8), "byte 15: data beyond the objects' end"},
      {"\xa1\x00\x03"s, "byte 16: a reference to an object that isn't there"},
  }};
  for (const auto& [value, error] : cases) EXPECT_EQ(xmlOf(value), error);
  EXPECT_EQ(xmlOf(holding(0xD, {3, 3}), {"\x09"s}), "byte 20: a key that is no text");

  const auto errorOf = [](const std::string& bytes) {
    std::string error;
    EXPECT_FALSE(xmlOfBinary(bytes, error));
    return error;
  };
  EXPECT_EQ(errorOf("bplist15"s + std::string(40, '\0')),
            "byte 6: a binary property list of another version than 00");
  EXPECT_EQ(errorOf("bplist00"), "byte 8: the trailer is missing");
  EXPECT_EQ(errorOf(listOf({holding(0xA, {})})), "byte 8: the outermost value is no dictionary");
  EXPECT_EQ(errorOf(listOf({})), "byte 8: a reference to an object that isn't there");

  const std::string whole =
      listOf({holding(0xD, {})});  // header, the object at 8, its place at 9, the trailer at 13
  const auto with = [&](size_t at, uint64_t number, size_t bytes) {
    return std::string(whole).replace(at, bytes, bigEndian(number, bytes));
  };
  for (const uint64_t place : {uint64_t{0}, uint64_t{7}, uint64_t{9}, uint64_t{UINT32_MAX}}) {
    EXPECT_EQ(errorOf(with(9, place, 4)), "byte 9: an object outside the objects");
  }
  for (const size_t length : {19, 20}) {
    EXPECT_EQ(errorOf(with(length, 0, 1)),
              "byte 19: the trailer's numbers have no length that a number can have");
    EXPECT_EQ(errorOf(with(length, 9, 1)),
              "byte 19: the trailer's numbers have no length that a number can have");
  }
  for (const uint64_t count : {uint64_t{2}, UINT64_MAX, UINT64_MAX / 4 + 2}) {
    EXPECT_EQ(errorOf(with(21, count, 8)), "byte 21: the table of objects lies outside the file");
  }
  for (const uint64_t table : {uint64_t{7}, uint64_t{10}, uint64_t{14}, UINT64_MAX}) {
    EXPECT_EQ(errorOf(with(37, table, 8)), "byte 21: the table of objects lies outside the file");
  }
  EXPECT_EQ(errorOf(with(29, UINT64_MAX, 8)), "byte 13: a reference to an object that isn't there");
  for (size_t length = 6; length < whole.size(); ++length) EXPECT_NE(errorOf(whole.substr(0, length)), "");
}

TEST(BinaryPropertyList, WhatRefersToItselfOrNestsTooDeepEnds) {
  EXPECT_EQ(xmlOf(holding(0xA, {2})), "byte 15: nested deeper than 128 levels, or within itself");
  EXPECT_EQ(xmlOf(holding(0xD, {1, 0})), "byte 8: nested deeper than 128 levels, or within itself");

  const auto nested = [](size_t levels) {  // the outermost dictionary is one, an array in it another, the
                                           // innermost value the last
    std::vector<std::string> others;
    for (size_t object = 3; object < levels; ++object) others.push_back(holding(0xA, {object + 1}));
    others.push_back("\x09"s);
    return xmlOf(holding(0xA, {3}), others);
  };
  EXPECT_NE(nested(kMaxBinaryDepth).find("<array><true/></array>"), std::string::npos);
  EXPECT_NE(nested(kMaxBinaryDepth + 1).find("nested deeper than 128 levels"), std::string::npos);
}

TEST(BinaryPropertyList, WhatGrowsByReferencesIsBoundedAsALongFileIs) {
  const std::string tooLong = "longer than 1048576 bytes as XML";
  std::vector<std::string> doubling;  // each twice the next: 2^100 values
  for (size_t object = 3; object < 103; ++object) doubling.push_back(holding(0xA, {object + 1, object + 1}));
  doubling.push_back("\x09"s);
  EXPECT_NE(xmlOf(holding(0xA, {3, 3}), doubling).find(tooLong), std::string::npos);

  // Nulls leave no trace in the XML, and are counted all the same.
  const std::string nulls = holding(0xA, std::vector<size_t>(60'000, 4));
  EXPECT_NE(xmlOf(holding(0xA, std::vector<size_t>(60'000, 3)), {nulls, "\0"s}).find(tooLong),
            std::string::npos);

  const std::string longText = "\x5f\x12"s + bigEndian(400'000, 4) + std::string(400'000, 'k');
  EXPECT_NE(xmlOf(holding(0xA, {3, 3}), {longText}), "");
  EXPECT_NE(xmlOf(holding(0xA, {3, 3, 3}), {longText}).find(tooLong), std::string::npos);
  // So are texts that name nothing.
  std::vector<size_t> entries(30'000, 3);
  entries.resize(60'000, 4);
  EXPECT_EQ(xmlOf(holding(0xD, entries), {longText, "\0"s}), "<dict></dict>");

  const auto ofLength = [](size_t length) {
    const std::string text = "\x5f\x12"s + bigEndian(length, 4) + std::string(length, 'x');
    std::string error;
    const auto xml = xmlOfBinary(listOf({holding(0xD, {1, 2}), "\x51k", text}), error);
    return xml ? xml->size() : 0;
  };
  const size_t frame = ofLength(0);
  EXPECT_EQ(ofLength(kMaxBytes - frame - 1), kMaxBytes - 1);  // a value is counted as a byte, too
  EXPECT_EQ(ofLength(kMaxBytes - frame), 0u);
}

}  // namespace
}  // namespace plist
