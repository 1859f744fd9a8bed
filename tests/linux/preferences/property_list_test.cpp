#include "platform/linux/preferences/property_list.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <optional>

namespace quorveld::linux_platform {
namespace {

using platform::OpaquePreference;
using platform::PreferenceValue;

std::string listOf(const std::string& contents) {
  return "<?xml version=\"1.0\"?>\n<!DOCTYPE plist [<!ENTITY a \"aaaa\">]>\n<plist version=\"1.0\">\n<dict>" +
         contents + "</dict>\n</plist>\n";
}

PropertyList parsed(const std::string& text) {
  auto result = parsePropertyList(text);
  if (const auto* error = std::get_if<PropertyListError>(&result)) {
    ADD_FAILURE() << error->text;
    return {};
  }
  return std::get<PropertyList>(std::move(result));
}

TEST(PropertyList, ReadsEveryKindOfValueAndWritesBackTheSame) {
  const std::string nested =
      "<array a='\">'><string>  &#13;</string>\r\n<!-- </array> --><dict><key>&lt;</key><array/></dict>"
      "<![CDATA[</array>]]><?pi </array>?></array>";
  const PropertyList list = parsed(listOf(
      "<key>t</key><true/><key>f</key><false></false><!-- said twice --><key>i</key><integer>1</integer>\n"
      "<key>i</key><integer> -9223372036854775808 </integer><key>r</key><real>+2.5e3</real>"
      "<key>s</key><string>a &amp; b<![CDATA[<c>]]></string><key>blank</key><string> </string>"
      "<key>&amp;</key><string/><key>huge</key><integer>18446744073709551615</integer>"
      "<key>when</key><date>2026-01-01T00:00:00Z</date><key>nested</key>" +
      nested));
  EXPECT_EQ(list.at("t").value, PreferenceValue::Variant(true));
  EXPECT_EQ(list.at("f").value, PreferenceValue::Variant(false));
  EXPECT_EQ(list.at("i").value, PreferenceValue::Variant(std::numeric_limits<int64_t>::min()));
  EXPECT_EQ(list.at("r").value, PreferenceValue::Variant(2500.0));
  EXPECT_EQ(list.at("s").value, PreferenceValue::Variant(std::string("a & b<c>")));
  EXPECT_EQ(list.at("blank").value, PreferenceValue::Variant(std::string(" ")));
  EXPECT_EQ(list.at("&").value, PreferenceValue::Variant(std::string()));
  EXPECT_EQ(list.at("huge").value, PreferenceValue::Variant(OpaquePreference{"an integer out of range"}));
  EXPECT_EQ(list.at("when").value, PreferenceValue::Variant(OpaquePreference{"a date"}));
  EXPECT_EQ(list.at("nested").value, PreferenceValue::Variant(OpaquePreference{"an array"}));
  EXPECT_EQ(list.at("nested").xml, nested);
  EXPECT_EQ(list.size(), 10u);

  EXPECT_EQ(parsed(formatPropertyList(list)), list);
  const PropertyList odd = {{"k\r\x01", {PreferenceValue::Variant(std::string("]]>\t\n\r\x7f")), {}}},
                            {"tenth", {PreferenceValue::Variant(0.1), {}}}};
  EXPECT_EQ(parsed(formatPropertyList(odd)), odd);
  EXPECT_TRUE(parsed(listOf("\n  ")).empty());
}

TEST(PropertyList, WholeNumbersMayBeHexadecimal) {
  const auto valueOf = [](const std::string& text) -> std::optional<PreferenceValue> {
    const auto result = parsePropertyList(listOf("<key>i</key><integer>" + text + "</integer>"));
    const auto* list = std::get_if<PropertyList>(&result);
    return list ? std::optional(list->at("i").value) : std::nullopt;
  };
  const auto number = [](int64_t value) { return PreferenceValue(PreferenceValue::Variant(value)); };
  EXPECT_EQ(valueOf("0x9"), number(9));
  EXPECT_EQ(valueOf(" +0XfF\n"), number(255));
  EXPECT_EQ(valueOf("-0x8000000000000000"), number(std::numeric_limits<int64_t>::min()));
  EXPECT_EQ(valueOf("0x8000000000000000"),
            PreferenceValue::Variant(OpaquePreference{"an integer out of range"}));
  for (const char* none :
       {"0x", "-0x", "0x-9", "-0x-9", "0x+9", "+-9", "+-0x9", "0xg", "9x0", "0x 9", "", "-"}) {
    EXPECT_EQ(valueOf(none), std::nullopt) << none;
  }
}

TEST(PropertyList, OfAnotherFormIsReadAsItsXml) {
  // As tools write it: {"QuorvelEnabled": true, "List": [2.5]}.
  const std::string binary(
      "bplist00\xd2\x01\x02\x03\x04^QuorvelEnabledTList\x09\xa1\x05#@\x04\x00\x00\x00\x00\x00\x00\x08\x0d\x1c!\x22$\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x06\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00-",
      83);
  const PropertyList list = parsed(binary);
  EXPECT_EQ(list.at("QuorvelEnabled").value, PreferenceValue::Variant(true));
  EXPECT_EQ(list.at("List").xml, "<array><real>2.5</real></array>");

  std::string wide = "\xFF\xFE";
  for (const char c : listOf("<key>k</key>\n<array>\n</array>")) wide += {c, '\0'};
  EXPECT_EQ(parsed(wide).at("k").xml, "<array>\n</array>");
  EXPECT_EQ(parsed("\xEF\xBB\xBF" + listOf("<key>k</key><date>x</date>")).at("k").xml, "<date>x</date>");
}

TEST(PropertyList, NamesTheLineOfWhatIsWrong) {
  const auto lineOf = [](const std::string& text) -> size_t {
    const auto result = parsePropertyList(text);
    const auto* error = std::get_if<PropertyListError>(&result);
    size_t line = 0;
    return error && std::sscanf(error->text.c_str(), "line %zu: %*s", &line) == 1 ? line : 0;
  };
  EXPECT_EQ(lineOf(listOf("\n<key>a</key><integer>1x</integer>")), 5u);
  EXPECT_EQ(lineOf(listOf("\n<key>a</key>\n<real/>")), 6u);
  EXPECT_EQ(lineOf(listOf("\n<key>a</key>\n<colour/>")), 6u);
  EXPECT_EQ(lineOf(listOf("\n\n<true/>")), 6u);
  EXPECT_EQ(lineOf(listOf("<key>a</key>")), 4u);
  EXPECT_EQ(lineOf(listOf("<key>a</key>text")), 4u);
  EXPECT_EQ(lineOf(listOf("<key>a</key><true>")), 4u);
  EXPECT_EQ(lineOf("<plist><array/></plist>"), 1u);
  EXPECT_EQ(lineOf("<dict/>"), 1u);
  EXPECT_EQ(lineOf(""), 1u);
  EXPECT_EQ(lineOf(std::string("\0\0\0\0", 4)), 1u);
}

TEST(PropertyList, SurvivesDepthAndEntities) {
  constexpr size_t kDepth = 100'000;
  std::string deep = "<key>a</key>";
  for (size_t i = 0; i < kDepth; ++i) deep += "<array>";
  for (size_t i = 0; i < kDepth; ++i) deep += "</array>";
  const PropertyList list = parsed(listOf(deep));
  EXPECT_EQ(parsed(formatPropertyList(list)), list);
  // An entity of the document's own is left as it was written.
  EXPECT_EQ(parsed(listOf("<key>a</key><string>&a;</string>")).at("a").value,
            PreferenceValue::Variant(std::string("&a;")));
}

}  // namespace
}  // namespace quorveld::linux_platform
