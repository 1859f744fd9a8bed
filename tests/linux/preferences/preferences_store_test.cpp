#include "platform/linux/preferences/preferences_store.h"

#include <gtest/gtest.h>

#include "plist/limits.h"
#include "tests/linux/scratch_root.h"
#include "tests/sim/sim_platform.h"

namespace quorveld::linux_platform {
namespace {

using platform::PreferenceValue;

constexpr const char* kDomain = "com.corvix.telvo";
constexpr const char* kStoredFile = "var/mobile/Library/Preferences/com.corvix.telvo.plist";

PreferenceValue of(bool value) {
  return PreferenceValue::Variant(value);
}

std::string plistOf(const std::string& contents) {
  return "<plist version=\"1.0\"><dict>" + contents + "</dict></plist>";
}

class Preferences : public testing::Test {
 protected:
  PropertyList stored() const {
    auto result = parsePropertyList(root_.read(kStoredFile));
    return std::get<PropertyList>(std::move(result));
  }

  sim::SimPlatform sim_;  // for its log
  const ScratchRoot root_;
  LinuxPreferencesStore store_;
};

TEST_F(Preferences, SetsOfTheDaemonAndOfOthersAreMerged) {
  EXPECT_EQ(store_.value("QuorvelEnabled", kDomain), std::nullopt);
  store_.set("QuorvelEnabled", of(true), kDomain);
  EXPECT_EQ(store_.value("QuorvelEnabled", kDomain), of(true));
  EXPECT_FALSE(root_.exists(kStoredFile));

  const std::string opaque = "<array><string>kept</string></array>";
  root_.write(kStoredFile,
              plistOf("<key>QuorvelEnabled</key><false/><key>Gone</key><true/><key>Other</key><true/>"
                      "<key>List</key>" +
                      opaque));
  store_.remove("Gone", kDomain);
  store_.synchronise(kDomain);
  EXPECT_EQ(store_.value("QuorvelEnabled", kDomain), of(true));
  EXPECT_EQ(store_.value("Other", kDomain), of(true));
  EXPECT_EQ(store_.value("Gone", kDomain), std::nullopt);
  EXPECT_EQ(stored().size(), 3u);
  EXPECT_EQ(stored().at("List").xml, opaque);

  // What was written is the daemon's no longer: others may change it.
  root_.write(kStoredFile, plistOf("<key>QuorvelEnabled</key><false/>"));
  EXPECT_EQ(store_.value("QuorvelEnabled", kDomain), of(true));
  store_.synchronise(kDomain);
  EXPECT_EQ(store_.value("QuorvelEnabled", kDomain), of(false));
  EXPECT_TRUE(sim_.logs.lines.empty()) << sim_.logs.dump();
}

TEST_F(Preferences, NothingIsWrittenThatIsThereAlready) {
  const std::string text = plistOf("<key>a</key><true/>");
  root_.write(kStoredFile, text);
  store_.set("a", of(true), kDomain);
  store_.remove("b", kDomain);
  store_.synchronise(kDomain);
  EXPECT_EQ(root_.read(kStoredFile), text);
}

TEST_F(Preferences, ASynchroniseReadsItsDomainOnceAndNoOther) {
  const char* other = "com.corvix.quorvel";
  EXPECT_EQ(store_.value("a", other), std::nullopt);
  root_.write("var/mobile/Library/Preferences/com.corvix.quorvel.plist", plistOf("<key>a</key><true/>"));
  store_.synchronise(kDomain);
  EXPECT_EQ(store_.value("a", other), std::nullopt);
  store_.synchronise(other);
  EXPECT_EQ(store_.value("a", other), of(true));
}

TEST_F(Preferences, AFileThatIsBrokenAtFirstActsAsEmptyIsLoggedOncePerStateAndIsKeptAside) {
  root_.write(kStoredFile, plistOf("<key>a</key>\n<integer>x</integer>"));
  store_.synchronise(kDomain);
  store_.synchronise(kDomain);
  EXPECT_EQ(store_.value("a", kDomain), std::nullopt);
  const std::string path = root_ / kStoredFile;
  EXPECT_EQ(sim_.logs.count(platform::LogLevel::standard,
                            "Unusable property list " + path +
                                ": line 2: <integer> holds no whole number; it counts as empty"),
            1)
      << sim_.logs.dump();
  EXPECT_FALSE(root_.exists(std::string(kStoredFile) + ".broken"));

  const std::string worse = plistOf("<key>a</key>\n\n<integer>xyz</integer>");
  root_.write(kStoredFile, worse);
  store_.set("b", of(true), kDomain);
  store_.synchronise(kDomain);
  EXPECT_TRUE(sim_.logs.has(
      platform::LogLevel::standard,
      "Unusable property list " + path + ": line 3: <integer> holds no whole number; it counts as empty"));
  EXPECT_EQ(root_.read(std::string(kStoredFile) + ".broken"), worse);
  EXPECT_EQ(stored().size(), 1u);
}

TEST_F(Preferences, AFileThatBreaksLaterKeepsItsLastGoodValuesUntilItIsGoodOrGoneAndAManagedOneIsEmpty) {
  const auto complaint = [&](const std::string& file, const std::string& reason) {
    const char* effect = file == kStoredFile ? "its last good values stay in force" : "it counts as empty";
    return sim_.logs.count(platform::LogLevel::standard,
                           "Unusable property list " + (root_ / file) + ": " + reason + "; " + effect);
  };
  const std::string good = plistOf("<key>a</key><true/>");
  const std::string broken = "<plist><dict><key>a</key><fal";
  const std::string reason = "line 1: Error parsing start element tag";
  root_.write(kStoredFile, good);
  root_.write("managed.plist", good);
  const auto look = [&] {
    store_.synchronise(kDomain);
    return std::pair(store_.value("a", kDomain).has_value(),
                     store_.managedDictionary("/managed.plist").size());
  };
  EXPECT_EQ(look(), std::pair(true, size_t{1}));
  for (const char* file : {kStoredFile, "managed.plist"}) root_.write(file, broken);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(look(), std::pair(true, size_t{0}));
  EXPECT_EQ(complaint(kStoredFile, reason), 1) << sim_.logs.dump();
  EXPECT_EQ(complaint("managed.plist", reason), 1);

  // Whoever mends it finds it as it was: what the daemon sets meanwhile waits.
  store_.set("b", of(true), kDomain);
  store_.synchronise(kDomain);
  EXPECT_EQ(root_.read(kStoredFile), broken);
  EXPECT_FALSE(root_.exists(std::string(kStoredFile) + ".broken"));
  EXPECT_EQ(store_.value("b", kDomain), of(true));
  EXPECT_EQ(sim_.logs.lines.size(), 2u) << sim_.logs.dump();

  root_.write(kStoredFile,
              "bplist00");  // another slip is another line; so is the first one after a good state
  EXPECT_EQ(look(), std::pair(true, size_t{0}));
  EXPECT_EQ(complaint(kStoredFile, "byte 8: the trailer is missing"), 1);
  root_.write(kStoredFile, plistOf("<key>c</key><true/>"));
  EXPECT_EQ(look().first, false);
  EXPECT_EQ(stored().size(), 2u);
  root_.write(kStoredFile, broken);
  look();
  EXPECT_EQ(complaint(kStoredFile, reason), 2);

  for (const char* file : {kStoredFile, "managed.plist"}) std::filesystem::remove(root_ / file);
  EXPECT_EQ(look(), std::pair(false, size_t{0}));
  EXPECT_EQ(store_.value("c", kDomain), std::nullopt);
}

TEST_F(Preferences, WhatCannotBeReadOrWrittenLeavesTheValuesAtHand) {
  root_.write(kStoredFile, plistOf("<key>a</key><true/>"));
  store_.synchronise(kDomain);
  std::filesystem::remove(root_ / kStoredFile);
  std::filesystem::create_directory_symlink(root_ / "",
                                            root_ / kStoredFile);  // nothing to read, easily replaced
  store_.set("b", of(true), kDomain);
  store_.synchronise(kDomain);
  EXPECT_EQ(store_.value("a", kDomain), of(true));
  EXPECT_EQ(store_.value("b", kDomain), of(true));
  EXPECT_TRUE(std::filesystem::is_symlink(root_ / kStoredFile));

  std::filesystem::remove(root_ / kStoredFile);
  store_.synchronise(kDomain);
  EXPECT_EQ(store_.value("a", kDomain), std::nullopt);
  EXPECT_EQ(stored().at("b").value, of(true));
}

TEST_F(Preferences, FileAtTheSizeLimitIsReadAndALongerOneIsNot) {
  std::string text = plistOf("<key>a</key><true/>");
  text.append(plist::kMaxBytes - text.size(), '\n');
  root_.write("managed.plist", text);
  EXPECT_EQ(store_.managedDictionary("/managed.plist").size(), 1u);
  root_.write("longer.plist", text + "\n");
  EXPECT_TRUE(store_.managedDictionary("/longer.plist").empty());
  EXPECT_EQ(sim_.logs.lines.size(), 1u);
  EXPECT_TRUE(store_.managedDictionary("/missing.plist").empty());
  EXPECT_EQ(sim_.logs.lines.size(), 1u);
}

}  // namespace
}  // namespace quorveld::linux_platform
