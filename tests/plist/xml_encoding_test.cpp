#include <gtest/gtest.h>
#include <iconv.h>

#include <array>

#include "plist/limits.h"
#include "plist/xml_form.h"

namespace plist {
namespace {

using namespace std::string_literals;

/// `text`, which is in UTF-8, in another encoding.
std::string in(const char* encoding, std::string text) {
  const iconv_t conversion = iconv_open(encoding, "UTF-8");
  std::string result(4 * text.size() + 16, '\0');
  char* from = text.data();
  char* to = result.data();
  size_t fromLeft = text.size();
  size_t toLeft = result.size();
  EXPECT_EQ(iconv(conversion, &from, &fromLeft, &to, &toLeft), 0u) << encoding;
  iconv(conversion, nullptr, nullptr, &to, &toLeft);
  iconv_close(conversion);
  result.resize(result.size() - toLeft);
  return result;
}

std::string declared(const std::string& encoding, const std::string& text = "<plist>\nö</plist>\n") {
  return "<?xml version=\"1.0\" encoding=\"" + encoding + "\" ?>\n" + text;
}

std::string formOf(const std::string& bytes) {
  std::string error;
  const std::optional<std::string> text = xmlForm(bytes, error);
  EXPECT_EQ(text.has_value(), error.empty());
  return text.value_or(error);
}

TEST(XmlEncoding, IsWhatTheFirstBytesOrTheDeclarationSay) {
  struct Case {
    std::string mark;
    const char* encoding;
    const char* name;  // as declared
  };
  const std::array<Case, 11> cases{{{"\xFF\xFE", "UTF-16LE", "UTF-16"},
                                    {"\xFE\xFF", "UTF-16BE", "utf-16"},
                                    {"\xFF\xFE\0\0"s, "UTF-32LE", "UTF-32"},
                                    {"\0\0\xFE\xFF"s, "UTF-32BE", "UTF-32"},
                                    {"", "UTF-16LE", "UTF-16LE"},
                                    {"", "UTF-16BE", "UTF-16"},
                                    {"", "UTF-32LE", "UTF-32"},
                                    {"", "UTF-32BE", "UTF-32"},
                                    {"", "ISO-8859-1", "iso-8859-1"},
                                    {"", "WINDOWS-1252", "windows-1252"},
                                    {"\xFF\xFE", "UTF-16LE", "ISO-8859-1"}}};  // the mark is right
  for (const Case& item : cases) {
    EXPECT_EQ(formOf(item.mark + in(item.encoding, declared(item.name))), declared("UTF-8")) << item.name;
  }
  // One with a state that has to be left at the end, one of several bytes, one without a declaration.
  EXPECT_EQ(formOf(in("ISO-2022-JP", declared("ISO-2022-JP", "<plist>日本"))),
            declared("UTF-8", "<plist>日本"));
  EXPECT_EQ(formOf(in("SHIFT_JIS", declared("Shift_JIS", "日本"))), declared("UTF-8", "日本"));
  EXPECT_EQ(formOf("\xFE\xFF"s + in("UTF-16BE", "<plist>ö")), "<plist>ö");

  for (const std::string& asItIs :
       {declared("UTF-8"), declared("utf-8"), "\xEF\xBB\xBF"s + declared("ISO-8859-1"),
        "<?xml version='1.0'?><a>"s, "<plist encoding=\"UTF-16\">"s, "<?xml encoding=?>"s, "<?xml encoding"s,
        "<?xml encoding=\"UTF-16"s, "\xFF"s, ""s}) {
    EXPECT_EQ(formOf(asItIs), asItIs);
  }
}

TEST(XmlEncoding, OneThatIsUnknownOrNotTheTextsIsRefusedWithItsLine) {
  EXPECT_EQ(formOf(declared("klingon")), "line 1: unknown encoding klingon");
  for (const char* name : {"UTF-16//TRANSLIT", "../../tmp/module", "a,b", " ", "a b"}) {
    EXPECT_EQ(formOf(declared(name)), "line 1: the declaration's encoding is no name") << name;
  }
  EXPECT_EQ(formOf(declared(std::string(kMaxEncodingNameBytes, 'x'))),
            "line 1: unknown encoding " + std::string(kMaxEncodingNameBytes, 'x'));
  EXPECT_EQ(formOf(declared(std::string(kMaxEncodingNameBytes + 1, 'x'))),
            "line 1: the declaration's encoding is no name");
  EXPECT_EQ(formOf(declared("US-ASCII")), "line 3: not in US-ASCII");
  EXPECT_EQ(formOf("\xFF\xFE"s + in("UTF-16LE", "<a>\n") + "\x3d\xd8"),
            "line 2: not in UTF-16LE");                                                     // half a pair
  EXPECT_EQ(formOf("\xFF\xFE"s + in("UTF-16LE", "<a>") + "x"), "line 1: not in UTF-16LE");  // half a unit
  // A declaration that could be read as ASCII can't be in these.
  EXPECT_EQ(formOf(declared("UTF-16", "<plist>12")), "line 1: not in UTF-16");
  EXPECT_EQ(formOf(declared("IBM037", "<plist>")), "line 1: not in IBM037");
}

TEST(XmlEncoding, WhatGrowsBeyondTheLimitInUtf8IsRefused) {
  const std::string mark = "\xFE\xFF";
  const std::string whole = "<a>" + std::string(kMaxBytes - 3, 'x');
  EXPECT_EQ(formOf(mark + in("UTF-16BE", whole)), whole);
  EXPECT_EQ(formOf(mark + in("UTF-16BE", whole + "x")), "line 1: longer than 1048576 bytes in UTF-8");
}

}  // namespace
}  // namespace plist
