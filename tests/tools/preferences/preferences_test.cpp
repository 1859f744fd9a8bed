#include <gtest/gtest.h>

#include <stdexcept>

#include "tools/preferences/preference_file.h"

using quorvelctl::PreferenceFile;
using quorvelctl::StoredValue;

namespace {

PreferenceFile parsedPreferences(const std::string& text) {
  std::string error;
  auto file = PreferenceFile::parse(text, error);
  if (!file) throw std::runtime_error(error);
  return *std::move(file);
}

std::string shown(const PreferenceFile& file, std::string_view key) {
  return file.get(key).value_or(StoredValue{"no such key", ""}).shown();
}

TEST(PreferenceFile, ChangesWhatItIsToldAndKeepsTheRestByteForByte) {
  const std::string before =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"x\" \"y\">\n"
      "<plist version=\"1.0\">\n<dict>\n"
      "\t<!-- set by hand -->\n"
      "\t<key>Limits</key>\n\t<array><integer>1</integer><date>2020-01-01T00:00:00Z</date></array>\n"
      "\t<key>QuorvelEnabled</key> <false/>\n"
      "\t<key>Text &amp; more</key><string><![CDATA[a<b]]></string>\n"
      "</dict>\n</plist>\n";
  PreferenceFile file = parsedPreferences(before);
  EXPECT_EQ(file.text(), before);
  EXPECT_EQ(shown(file, "Text & more"), "\"a<b\"");
  EXPECT_EQ(shown(file, "Limits"), "<array>");

  file.set("QuorvelEnabled", {"true", ""});
  file.set("New", {"string", "a<b"});
  std::string after = before;
  after.replace(after.find("<false/>"), 8, "<true/>");
  after.insert(after.find("</dict>"), "\t<key>New</key>\n\t<string>a&lt;b</string>\n");
  EXPECT_EQ(file.text(), after);

  EXPECT_TRUE(file.unset("New"));
  EXPECT_TRUE(file.unset("QuorvelEnabled"));
  EXPECT_FALSE(file.unset("QuorvelEnabled"));
  const PreferenceFile again = parsedPreferences(file.text());
  EXPECT_EQ(again.text().find("QuorvelEnabled"), std::string::npos);
  EXPECT_NE(again.text().find("set by hand"), std::string::npos);
  EXPECT_TRUE(again.get("Limits") && again.get("Text & more"));
}

TEST(PreferenceFile, TheLastOfAKeyCountsAndAllOfThemGo) {
  PreferenceFile file = parsedPreferences(
      "<plist><dict><key>K</key><integer> 1 </integer><!--c--><key>K</key><!--c--><integer>2</integer>"
      "<key>L</key><true/></dict></plist>");
  EXPECT_EQ(shown(file, "K"), "2");
  file.set("K", {"integer", "3"});
  EXPECT_EQ(shown(parsedPreferences(file.text()), "K"), "3");
  EXPECT_TRUE(file.unset("K"));
  const PreferenceFile again = parsedPreferences(file.text());
  EXPECT_FALSE(again.get("K"));
  EXPECT_TRUE(again.get("L"));
}

TEST(PreferenceFile, RefusesWhatIsNoDictionaryWithItsLine) {
  for (const char* text : {"<plist>\n<dict>\n<key>K</key></dict></plist>", "<plist><dict/><dict/></plist>",
                           "<plist><dict><true/><true/></dict></plist>", "<dict/>", "<plist><di", "text"}) {
    std::string error;
    EXPECT_FALSE(PreferenceFile::parse(text, error)) << text;
    EXPECT_EQ(error.find("line "), 0u) << error;
  }
  EXPECT_FALSE(parsedPreferences("<plist><dict/></plist>").get("K"));
  EXPECT_FALSE(parsedPreferences("").get("K"));
}

TEST(PreferenceValue, IsTypedByTheKeyAndRefusedOtherwise) {
  const auto typed = [](const char* key, const char* text) {
    std::string error;
    const auto value = quorvelctl::typedValue(*quorvelctl::findPreferenceKey(key), text, error);
    return value ? value->element + " " + value->text : error;
  };
  EXPECT_EQ(typed("QuorvelEnabled", "YES"), "true ");
  EXPECT_EQ(typed("QuorvelEnabled", "2"), "QuorvelEnabled takes true or false, not \"2\"");
  EXPECT_EQ(typed("QuorvelHangTimeoutDuration", "2500"), "real 2500.0");
  EXPECT_EQ(typed("QuorvelHangTimeoutDuration", "inf"),
            "QuorvelHangTimeoutDuration takes a number above 0, not \"inf\"");
  EXPECT_EQ(typed("QuorvelHangTimeoutDuration", "-5"),
            "QuorvelHangTimeoutDuration takes a number above 0, not \"-5\"");
  EXPECT_EQ(typed("QuorvelHangTimeoutDuration", "0"),
            "QuorvelHangTimeoutDuration takes a number above 0, not \"0\"");
  EXPECT_EQ(typed("QuorvelLongHangDurationThreshold", "0"), "real 0.0");
  EXPECT_EQ(typed("QuorvelLongHangDurationThreshold", "-5"),
            "QuorvelLongHangDurationThreshold takes a number from 0, not \"-5\"");
  EXPECT_EQ(typed("QuorvelDailyLogLimit", "-1"),
            "QuorvelDailyLogLimit takes a whole number from 0 to 2147483647, not \"-1\"");
  EXPECT_EQ(typed("QuorvelReportPeriod", "0.5").substr(0, 45),
            "QuorvelReportPeriod takes a number from 1 to ");
  EXPECT_EQ(typed("QuorvelMemoryLoggingInterval", "4294967295"), "integer 4294967295");
  EXPECT_NE(typed("QuorvelMemoryLoggingInterval", "4294967296").find("from 1 to 4294967295"),
            std::string::npos);
  EXPECT_NE(typed("QuorvelDailyLogLimit", "1.5").find("whole number"), std::string::npos);
  EXPECT_EQ(typed("QuorvelReportPeriod", "2147483647.5"), "real 2147483647.5");
  EXPECT_EQ(typed("QuorvelReportPeriod", "2147483648"),
            "QuorvelReportPeriod takes a number from 1 to 2147483647, not \"2147483648\"");
  EXPECT_EQ(typed("QuorvelAppActivationLoggingCPUUtilizationThreshold", "0"),
            "QuorvelAppActivationLoggingCPUUtilizationThreshold takes a number above 0, not \"0\"");
}

TEST(PreferenceFile, OfAnotherFormBecomesXmlInUtf8AndLosesNothing) {
  std::string wide = "\xFE\xFF";
  for (const char c : std::string("<?xml version='1.0' encoding='UTF-16'?>\n<!-- by hand -->\n"
                                  "<plist><dict><key>K</key><integer>-0x1F</integer></dict></plist>\n")) {
    wide += {'\0', c};
  }
  PreferenceFile file = parsedPreferences(wide);
  EXPECT_EQ(shown(file, "K"), "-31");
  file.set("K", {"true", ""});
  EXPECT_EQ(file.text(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- by hand -->\n"
            "<plist><dict><key>K</key><true/></dict></plist>\n");
  std::string error;
  EXPECT_FALSE(PreferenceFile::parse("bplist00 and no more", error));
  EXPECT_EQ(error, "byte 20: the trailer is missing");
}

TEST(PreferenceValue, AnswersAsTheDaemonReadsIt) {
  const auto taken = [](const char* key, const StoredValue& value) {
    return quorvelctl::answers(value, *quorvelctl::findPreferenceKey(key));
  };
  EXPECT_TRUE(taken("QuorvelEnabled", {"string", "No"}));
  EXPECT_FALSE(taken("QuorvelEnabled", {"string", "maybe"}));
  EXPECT_FALSE(taken("QuorvelEnabled", {"array", ""}));
  EXPECT_FALSE(taken("QuorvelEnabled", {"real", "nan"}));
  EXPECT_TRUE(taken("QuorvelHangTimeoutDuration", {"true", ""}));
  EXPECT_TRUE(taken("QuorvelHangTimeoutDuration", {"string", "2.5"}));
  EXPECT_FALSE(taken("QuorvelHangTimeoutDuration", {"real", "inf"}));
  EXPECT_TRUE(taken("QuorvelDailyLogLimit", {"real", "2.5"}));
  EXPECT_FALSE(taken("QuorvelDailyLogLimit", {"real", "1e30"}));
  EXPECT_FALSE(taken("QuorvelDailyLogLimit", {"integer", "2147483648"}));
  EXPECT_FALSE(taken("QuorvelDailyLogLimit", {"string", "2.5"}));
  EXPECT_FALSE(taken("QuorvelMemoryLoggingInterval", {"false", ""}));
  EXPECT_FALSE(taken("QuorvelAppActivationLoggingCPUUtilizationThreshold", {"integer", "0"}));
  EXPECT_TRUE(taken("QuorvelReportPeriod", {"real", "60.5"}));
  EXPECT_FALSE(taken("QuorvelReportPeriod", {"string", "60.5"}));
  EXPECT_FALSE(taken("QuorvelReportPeriod", {"integer", "2147483648"}));
}

}  // namespace
