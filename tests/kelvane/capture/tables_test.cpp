#include <gtest/gtest.h>

#include "kelvane/capture/file_lock.h"
#include "kelvane/capture/net_tables.h"
#include "kelvane/capture/server_wait.h"

namespace kelvane {
namespace {

TEST(Tables, SocketsOfTcpHaveBothTheirEnds) {
  const auto sockets = parseTcpTable(
      "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
      "   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1656 1 00\n"
      "   1: 0000000000000000FFFF00000100007F:C350 0000000000000000FFFF00000100007F:1F90 01 "
      "00000010:00000000 01:00000019 00000003     0        0 99 1 00\n"
      "   2: broken\n");
  ASSERT_EQ(sockets.size(), 2u);
  EXPECT_EQ(sockets[0].state, TcpSocket::kListening);
  EXPECT_EQ(sockets[1].remoteAddress, sockets[0].localAddress) << "IPv4 by any name";
  EXPECT_EQ(sockets[1].remotePort, 8080);
  EXPECT_EQ(sockets[1].unacknowledgedBytes, 16u);
  EXPECT_EQ(sockets[1].retransmits, 3u);
  EXPECT_EQ(sockets[1].inode, 99u);
  EXPECT_EQ(addressText("0100007F", 80), "127.0.0.1:80");
  EXPECT_EQ(addressText("00000000000000000000000001000000", 80), "[::1]:80");
  EXPECT_EQ(addressText("0100", 80), "");
}

TEST(Tables, AnAcceptedUnixSocketHasItsListenersName) {
  constexpr const char* kTable =
      "Num       RefCount Protocol Flags    Type St Inode Path\n"
      "000000008fbe9747: 00000003 00000000 00000000 0001 03 6931237\n"
      "000000004bf42e0a: 00000003 00000000 00000000 0001 03 6933095 /run/a b\n";
  EXPECT_EQ(unixSocketName(kTable, 6933095), "/run/a b");
  EXPECT_EQ(unixSocketName(kTable, 6931237), "");
  EXPECT_EQ(unixSocketName("", 1), "");
}

TEST(Tables, WhoWaitsForALockOnAFileHasItsNumber) {
  const auto locks = parseFileLocks(
      "1: POSIX  ADVISORY  WRITE 4711 08:02:131 0 EOF\n"
      "1: -> FLOCK  ADVISORY  WRITE 4712 08:02:131 0 EOF\n"
      "2: OFDLCK ADVISORY  READ  -1 fe:00:7 0 0\n3: POSIX\n");
  ASSERT_EQ(locks.size(), 3u);
  EXPECT_TRUE(locks[0].number == 1 && !locks[0].waits && locks[0].pid == 4711 && locks[0].inode == 131);
  EXPECT_TRUE(locks[1].number == 1 && locks[1].waits && locks[1].pid == 4712);
  EXPECT_TRUE(locks[2].pid == -1 && locks[2].inode == 7);
}

TEST(Tables, APathLiesOnTheLongestMount) {
  const auto mounts = parseMounts(
      "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
      "2 1 0:45 / /mnt/cloud rw master:1 shared:2 - fuse.cloud cloud rw,user_id=0\n"
      "3 1 0:46 / /mnt/cloudy rw - nfs4 server:/export rw,addr=10.0.0.2\nbroken\n");
  ASSERT_EQ(mounts.size(), 3u);
  EXPECT_EQ(mounts[1].deviceMinor, 45u);
  const auto typeAt = [&](const char* path) {
    const Mount* mount = mountOfPath(mounts, path);
    return mount ? mount->type : "";
  };
  EXPECT_EQ(typeAt("/mnt/cloud/a"), "fuse.cloud");
  EXPECT_EQ(typeAt("/mnt/cloudy"), "nfs4");
  EXPECT_EQ(typeAt("/mnt/clouds"), "ext4");
  EXPECT_EQ(typeAt("relative"), "");
}

}  // namespace
}  // namespace kelvane
