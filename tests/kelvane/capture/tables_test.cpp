#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/perf_event.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "kelvane/capture/call_watch.h"
#include "kelvane/capture/file_lock.h"
#include "kelvane/capture/mounts.h"
#include "kelvane/capture/net_tables.h"

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
      "pos:\t0\nlock:\t2: OFDLCK ADVISORY  READ  -1 fe:1f:7 0 0\n3: POSIX\n");
  ASSERT_EQ(locks.size(), 3u);
  EXPECT_TRUE(locks[0].number == 1 && !locks[0].waits && locks[0].pid == 4711 && locks[0].inode == 131);
  EXPECT_TRUE(locks[1].number == 1 && locks[1].waits && locks[1].pid == 4712);
  EXPECT_TRUE(locks[2].pid == -1 && locks[2].inode == 7);
  EXPECT_EQ(locks[2].device, (DeviceNumber{0xfe, 0x1f})) << "in hexadecimal";
}

/// An event of a system call, as the kernel writes it.
std::vector<std::byte> callEvent(uint16_t id, int64_t number, const std::vector<int64_t>& rest) {
  std::vector<int64_t> body = {id, number};
  body.insert(body.end(), rest.begin(), rest.end());
  const auto length = static_cast<uint32_t>(body.size() * sizeof body[0]);
  std::vector<std::byte> bytes(sizeof(perf_event_header) + sizeof length + length);
  const perf_event_header header{PERF_RECORD_SAMPLE, 0, static_cast<uint16_t>(bytes.size())};
  std::memcpy(bytes.data(), &header, sizeof header);
  std::memcpy(bytes.data() + sizeof header, &length, sizeof length);
  std::memcpy(bytes.data() + sizeof header + sizeof length, body.data(), length);
  return bytes;
}

TEST(Tables, ATryIsRepeatedIfItAsksForTheSameThingWithoutWaitingOnceMoreAfterASleep) {
  constexpr uint16_t kEnter = 443, kExit = 442;
  std::optional<CallReader> watching;
  const auto calls = [&](int64_t number, const std::vector<int64_t>& arguments, int64_t result) {
    EXPECT_FALSE(watching->repeatedTryIn(callEvent(kEnter, number, arguments)));
    return watching->repeatedTryIn(callEvent(kExit, number, {result})).has_value();
  };
  const auto sleeps = [&] { EXPECT_FALSE(calls(SYS_clock_nanosleep, {0, 0, 1, 1}, 0)); };
  const auto tries = [&](int64_t number, int64_t option, int64_t result, size_t optionAt = 1) {
    std::vector<int64_t> arguments = {7, 0, 0, 0, 0, 0};
    arguments[optionAt] = option;
    watching.emplace(CallEventIds{kEnter, kExit});
    EXPECT_FALSE(calls(number, arguments, result)) << "once";
    EXPECT_FALSE(calls(number, arguments, result)) << "at once";
    sleeps();
    return calls(number, arguments, result);
  };
  EXPECT_TRUE(tries(SYS_fcntl, F_SETLK, -EAGAIN));
  EXPECT_TRUE(tries(SYS_flock, LOCK_EX | LOCK_NB, -EWOULDBLOCK));
  EXPECT_TRUE(tries(SYS_wait4, WNOHANG, 0, 2));
  EXPECT_FALSE(tries(SYS_fcntl, F_SETLK, 0)) << "it got it";
  EXPECT_FALSE(tries(SYS_fcntl, F_GETFL, -EAGAIN));
  EXPECT_FALSE(tries(SYS_flock, LOCK_EX, -EINTR));
  EXPECT_FALSE(tries(SYS_wait4, WNOHANG, 4711, 2));

  watching.emplace(CallEventIds{kEnter, kExit});
  CallReader& reader = *watching;
  const auto triesLock = [&](int64_t fd) { return calls(SYS_flock, {fd, LOCK_EX | LOCK_NB}, -EWOULDBLOCK); };
  EXPECT_FALSE(triesLock(7) || triesLock(8));
  sleeps();
  EXPECT_FALSE(triesLock(9)) << "that is another one";
  sleeps();
  EXPECT_TRUE(triesLock(9));

  // An end without its begin, other records, and records that are cut off or lie about their length.
  EXPECT_FALSE(reader.repeatedTryIn(callEvent(kExit, SYS_flock, {-EWOULDBLOCK})));
  auto lost = callEvent(kEnter, SYS_flock, {7, LOCK_NB});
  lost[0] = std::byte{PERF_RECORD_LOST};
  auto end = callEvent(kExit, SYS_flock, {-EWOULDBLOCK});
  lost.insert(lost.end(), end.begin(), end.end());
  EXPECT_FALSE(reader.repeatedTryIn(lost));
  for (size_t length = 0; length < end.size(); length++)
    EXPECT_FALSE(reader.repeatedTryIn(std::span(end).first(length)));
  end[6] = std::byte{0};
  end[7] = std::byte{0};
  EXPECT_FALSE(reader.repeatedTryIn(end)) << "it would never come to an end";
}

TEST(Tables, APathLiesOnTheLongestMount) {
  const auto mounts = parseMounts(
      "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
      "2 1 0:45 / /mnt/cloud rw master:1 shared:2 - fuse.cloud cloud rw,user_id=0\n"
      "3 1 0:46 / /mnt/cloudy rw - nfs4 server:/export rw,addr=10.0.0.2\nbroken\n");
  ASSERT_EQ(mounts.size(), 3u);
  EXPECT_EQ(mounts[1].device.minor, 45u);
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
