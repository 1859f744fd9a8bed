#include "platform/linux/host/device.h"

#include <gtest/gtest.h>

#include <array>

#include "platform/linux/host/os_release.h"
#include "tests/linux/scratch_root.h"

namespace quorveld::linux_platform {
namespace {

TEST(OsRelease, UnderstandsQuotingAndSkipsWhatIsNoAssignment) {
  const auto values = parseOsRelease(
      "# NAME=comment\n\nNAME=\"Corvix \\\"Pad\\\" OS\"\nVERSION_ID='1\\2'\r\n  BUILD_ID=20A5\n"
      "OPEN=\"never closed\nnonsense\nSP ACE=1\nEMPTY=\nNAME_2=last\nNAME_2=wins");
  EXPECT_EQ(values.at("NAME"), "Corvix \"Pad\" OS");
  EXPECT_EQ(values.at("VERSION_ID"), "1\\2");
  EXPECT_EQ(values.at("BUILD_ID"), "20A5");
  EXPECT_EQ(values.at("EMPTY"), "");
  EXPECT_EQ(values.at("NAME_2"), "wins");
  EXPECT_EQ(values.size(), 5u);
  EXPECT_TRUE(parseOsRelease("").empty());
  EXPECT_TRUE(parseOsRelease(std::string(1, '\0') + "=\"").empty());
}

TEST(Device, ReadsItsVersionBelowTheRootAndSaysNothingOfWhatIsNotStated) {
  const ScratchRoot root;
  LinuxDevice device;
  EXPECT_EQ(device.osVersion().productName, std::nullopt);
  root.write("usr/lib/os-release", "NAME=Vendor\nBUILD_ID=7\n");
  EXPECT_EQ(device.osVersion().productName, "Vendor");
  root.write("etc/os-release", "NAME=Local\nVERSION_ID=12\n");
  EXPECT_EQ(device.osVersion().productName, "Local");
  EXPECT_EQ(device.osVersion().productVersion, "12");
  EXPECT_EQ(device.osVersion().buildVersion, std::nullopt);
}

TEST(Device, InternalBuildIsTheEnvironmentsWordAndElseTheVariants) {
  const ScratchRoot root;
  LinuxDevice device;
  EXPECT_FALSE(device.capability("InternalBuild"));
  root.write("etc/os-release", "VARIANT_ID=internal\n");
  EXPECT_TRUE(device.capability("InternalBuild"));
  EXPECT_FALSE(device.capability("SomethingElse"));
  ::setenv("QUORVELD_INTERNAL_BUILD", "no", 1);
  EXPECT_FALSE(device.capability("InternalBuild"));
  ::setenv("QUORVELD_INTERNAL_BUILD", "Yes", 1);
  EXPECT_TRUE(device.capability("InternalBuild"));
  ::unsetenv("QUORVELD_INTERNAL_BUILD");
}

TEST(Device, RandomNumbersStayBelowTheBoundAndFavourNone) {
  LinuxDevice device;
  EXPECT_EQ(device.uniformRandom(1), 0u);
  // Two thirds of 2^32: folding the rest back would draw from the lower half twice as often.
  constexpr uint32_t kBound = 2863311531U;
  std::array<int, 2> halves{};
  for (int i = 0; i < 4000; ++i) {
    const uint32_t number = device.uniformRandom(kBound);
    ASSERT_LT(number, kBound);
    ++halves[number < kBound / 2 ? 0 : 1];
  }
  EXPECT_NEAR(halves[0], 2000, 250);  // eight standard deviations
}

}  // namespace
}  // namespace quorveld::linux_platform
