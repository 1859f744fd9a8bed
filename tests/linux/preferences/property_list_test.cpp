#include "platform/linux/preferences/property_list.h"

#include <gtest/gtest.h>

#include <limits>

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
    ADD_FAILURE() << error->line << ": " << error->reason;
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
  for (const char* opaque : {"huge", "when", "nested"}) {
    EXPECT_EQ(list.at(opaque).value, PreferenceValue::Variant(OpaquePreference{})) << opaque;
  }
  EXPECT_EQ(list.at("nested").xml, nested);
  EXPECT_EQ(list.size(), 10u);

  EXPECT_EQ(parsed(formatPropertyList(list)), list);
  const PropertyList odd = {{"k\r\x01", {PreferenceValue::Variant(std::string("]]>\t\n\r\x7f")), {}}},
                            {"tenth", {PreferenceValue::Variant(0.1), {}}}};
  EXPECT_EQ(parsed(formatPropertyList(odd)), odd);
  EXPECT_TRUE(parsed(listOf("\n  ")).empty());
}

TEST(PropertyList, NamesTheLineOfWhatIsWrong) {
  const auto lineOf = [](const std::string& text) -> size_t {
    const auto result = parsePropertyList(text);
    const auto* error = std::get_if<PropertyListError>(&result);
    return error && !error->reason.empty() ? error->line : 0;
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
