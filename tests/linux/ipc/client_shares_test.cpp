#include "platform/linux/ipc/client_shares.h"

#include <gtest/gtest.h>

#include <vector>

namespace quorveld::linux_platform {
namespace {

size_t takeAll(ClientShares& shares, uint32_t uid, int32_t pid) {
  size_t count = 0;
  for (; shares.admits(uid, pid); ++count) shares.add(uid, pid);
  return count;
}

TEST(ClientShares, WhoeverComesLaterFindsPlacesAndRootAlwaysDoes) {
  ClientShares shares(1064, 64, 10);
  // One process leaves its user half of what the user may still have, and the user half of all.
  const size_t ofProcess = takeAll(shares, 1000, 1);
  EXPECT_GT(ofProcess, 300u);
  EXPECT_GT(takeAll(shares, 1000, 2), 0u);
  for (int32_t pid = 3; pid < 3000; ++pid) takeAll(shares, 1000, pid);
  EXPECT_LE(shares.of(1000), 500u);
  for (uint32_t uid = 1001; uid < 1010; ++uid) EXPECT_GT(takeAll(shares, uid, 5), 0u) << uid;
  EXPECT_FALSE(shares.admits(1010, 6)) << "more users than receivers may run";
  EXPECT_GE(takeAll(shares, 0, 7), 64u);
  EXPECT_EQ(shares.all(), 1064u);
  EXPECT_FALSE(shares.admits(1001, 5));

  // What is given back is there again, for as long as it takes.
  for (size_t i = 0; i < ofProcess; ++i) shares.remove(1000, 1);
  EXPECT_TRUE(shares.admits(1009, 5));
  EXPECT_EQ(shares.all(), 1064 - ofProcess);
}

}  // namespace
}  // namespace quorveld::linux_platform
