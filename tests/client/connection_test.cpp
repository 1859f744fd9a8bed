#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "abi/messages.h"
#include "client/include/quorvel.h"
#include "tests/client/fake_daemon.h"
#include "tests/patience.h"

using namespace std::chrono_literals;
using quorveld::tests::eventually;
using quorveld::tests::OwnTime;

TEST(Connection, RegistersASealedRegionInWhichNothingIsInFlight) {
  FakeDaemon daemon;
  daemon.start();
  ASSERT_EQ(watchPatiently("org.example.viewer", "viewer"), 0);
  EXPECT_EQ(qv_watch("org.example.viewer", "viewer"), -EALREADY);

  const auto messages = daemon.await(1);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0][QV_KEY_COMMAND], "x 1");
  EXPECT_EQ(messages[0][QV_KEY_BUNDLE_ID], "s org.example.viewer");
  EXPECT_EQ(messages[0][QV_KEY_NAME], "s viewer");
  EXPECT_EQ(messages[0]["expects reply"], "");

  struct stat status {};
  ASSERT_EQ(fstat(daemon.memory(), &status), 0);
  EXPECT_EQ(status.st_size, 7208);
  EXPECT_EQ(fcntl(daemon.memory(), F_GET_SEALS) & (F_SEAL_SHRINK | F_SEAL_GROW), F_SEAL_SHRINK | F_SEAL_GROW);
  const MappedRegion region(daemon.memory());
  EXPECT_EQ(region.header().protocolVersion, 4u);
  EXPECT_EQ(region.header().slotCount, 20u);
  EXPECT_TRUE(region.inFlight().empty());
}

TEST(Connection, EveryMessageCarriesItsKeysInTheirTypes) {
  FakeDaemon daemon;
  daemon.start();
  ASSERT_EQ(qv_connect(), 0);
  EXPECT_EQ(qv_report_hang("MainThread", 77, 100, 200, true), 0);
  EXPECT_EQ(qv_fence_begin(-5), 0);
  EXPECT_EQ(qv_fence_end(-5), 0);
  EXPECT_EQ(qv_fence_blown(300, 400), 0);
  EXPECT_EQ(qv_activation_begin(12, "org.example.viewer", QV_STATE_FOREGROUND, QV_TYPE_LAUNCH, 0, 0), 0);
  EXPECT_EQ(qv_activation_end(12, "org.example.viewer", QV_STATE_BACKGROUND, 7, 5000), 0);
  EXPECT_EQ(qv_unwatch(), 0);

  const auto messages = daemon.await(7);
  ASSERT_EQ(messages.size(), 7u);
  EXPECT_EQ(messages[0].values, (std::map<std::string, std::string>{{"command", "x 3"},
                                                                    {"name", "s MainThread"},
                                                                    {"threadID", "x 77"},
                                                                    {"startTime", "x 100"},
                                                                    {"endTime", "x 200"},
                                                                    {"saveReport", "b 1"}}));
  EXPECT_EQ(messages[1]["command"] + messages[1]["name"], "x 6x -5");
  EXPECT_EQ(messages[2]["command"] + messages[2]["name"], "x 7x -5");
  EXPECT_LE(std::stoull(messages[1]["startTime"].substr(2)), std::stoull(messages[2]["endTime"].substr(2)));
  EXPECT_EQ(messages[3].values, (std::map<std::string, std::string>{
                                    {"command", "x 8"}, {"startTime", "x 300"}, {"endTime", "x 400"}}));
  EXPECT_EQ(messages[4]["command"], "x 4");
  EXPECT_EQ(messages[4]["startTime"], "t 0");
  EXPECT_LE(qv_wall_ms() - std::stoull(messages[4]["ipxStartLatency"].substr(2)), 10'000u);
  EXPECT_EQ(messages[4]["app-activation-state"] + messages[4]["app-activation-type"], "x 1x 1");
  EXPECT_EQ(messages[5].values, (std::map<std::string, std::string>{{"command", "x 5"},
                                                                    {"pid", "x 12"},
                                                                    {"bundle-id", "s org.example.viewer"},
                                                                    {"endTime", "t 5000"},
                                                                    {"app-activation-state", "x 0"},
                                                                    {"app-activation-result", "x 7"}}));
  EXPECT_EQ(messages[6]["command"], "x 2");

  EXPECT_EQ(qv_report_hang(std::string(QV_TEXT_MAX + 1, 'a').c_str(), 1, 1, 2, false), -ENAMETOOLONG);
  for (const char* broken : {"\xff", "\x80", "\xc0\x80", "\xe0\x9f\x80", "\xed\xa0\x80", "\xe2\x82",
                             "\xf0\x8f\x80\x80", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80"}) {
    EXPECT_EQ(qv_report_hang(broken, 1, 1, 2, false), -EINVAL);
  }
  const std::string farthest =
      "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xf0\x90\x80\x80\xf4\x8f\xbf\xbd";
  EXPECT_EQ(qv_report_hang(farthest.c_str(), 1, 1, 2, false), 0);
  EXPECT_EQ(daemon.await(8)[7]["name"], "s " + farthest) << "still connected";
}

TEST(Connection, OperationsInFlightOutliveADaemonThatIsRestarted) {
  FakeDaemon daemon;
  EXPECT_EQ(qv_watch("org.example.viewer", "viewer"), -ENOENT);
  EXPECT_EQ(qv_report_hang("MainThread", 0, 1, 2, false), -ENOTCONN);
  const qv_operation operation = qv_begin("Import", true);  // before any daemon
  daemon.start();
  ASSERT_TRUE(processUntil([&] { return daemon.memory() >= 0; }));
  struct stat before {};
  fstat(daemon.memory(), &before);

  daemon.stop();
  ASSERT_TRUE(processUntil([] { return qv_process() < 0; }));
  daemon.start();
  EXPECT_EQ(qv_connect(), 0);  // no need to wait for the timer
  const auto messages = daemon.await(2);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[1][QV_KEY_BUNDLE_ID], "s org.example.viewer");
  struct stat after {};
  fstat(daemon.memory(), &after);
  EXPECT_EQ(before.st_ino, after.st_ino);

  const MappedRegion region(daemon.memory());
  ASSERT_EQ(region.inFlight().size(), 1u);
  EXPECT_STREQ(region.inFlight()[0]->hangName, "Import");
  qv_end(operation);
  EXPECT_TRUE(region.inFlight().empty());
}

TEST(Connection, ADaemonThatReadsNothingBlocksNobodyAndCostsBoundedMemory) {
  FakeDaemon daemon;
  daemon.start();
  ASSERT_EQ(qv_connect(), 0);
  daemon.pause(true);
  const std::string name(QV_TEXT_MAX, 'n');
  const OwnTime time;
  size_t taken = 0;
  int result = 0;
  while ((result = qv_report_hang(name.c_str(), 1, taken, 2, false)) == 0 && taken < 100'000) ++taken;
  EXPECT_EQ(result, -ENOBUFS);
  EXPECT_LT(time.elapsed(), 5s);
  EXPECT_EQ(qv_process(), 0);  // slow is not lost

  daemon.pause(false);
  ASSERT_TRUE(processUntil([&] { return daemon.received() == taken; }));
  const auto messages = daemon.await(taken);
  EXPECT_EQ(messages.back()["startTime"], "x " + std::to_string(taken - 1));
  EXPECT_EQ(qv_report_hang("MainThread", 0, 1, 2, false), 0);
}

TEST(Connection, AListenerThatNeverAnswersTheHandshakeIsGivenUpOn) {
  FakeDaemon daemon;
  daemon.pause(true);
  daemon.start();
  const OwnTime time;
  EXPECT_EQ(qv_connect(), -ETIMEDOUT);
  EXPECT_LT(time.elapsed(), 4s);
  qv_disconnect();
  const OwnTime startUp;
  EXPECT_EQ(qv_watch("org.example.viewer", "viewer"), -EINPROGRESS);
  EXPECT_LT(startUp.elapsed(), 1s);
  daemon.pause(false);
  ASSERT_TRUE(processUntil([&] { return daemon.memory() >= 0; }));
}

TEST(Connection, ADescriptorThatHasToWaitArrivesWithItsMessage) {
  FakeDaemon daemon;
  daemon.start();
  const auto send = [](size_t count) {
    size_t taken = 0;
    while (taken < count && qv_report_hang("MainThread", 1, taken, 2, false) == 0) ++taken;
    return taken;
  };
  ASSERT_EQ(qv_connect(), 0);
  daemon.pause(true);
  const size_t most = send(100'000);
  qv_disconnect();
  daemon.pause(false);
  ASSERT_TRUE(eventually([&] { return daemon.connections() == 0; }));

  ASSERT_EQ(qv_connect(), 0);
  daemon.pause(true);
  const size_t before = daemon.received();
  const size_t sent = send(most - QV_MESSAGES_MAX / 2);  // the socket is full, and half of the queue
  const std::string name(QV_TEXT_MAX, 'n'), bundle(QV_TEXT_MAX, 'b');
  EXPECT_EQ(qv_watch(bundle.c_str(), name.c_str()), 0);
  EXPECT_EQ(qv_report_hang("the last", 1, 1, 2, false), 0);
  daemon.pause(false);
  ASSERT_TRUE(processUntil([&] { return daemon.received() == before + sent + 2; }));
  const auto messages = daemon.await(before + sent + 2);
  EXPECT_EQ(messages[before + sent][QV_KEY_NAME], "s " + name);
  EXPECT_EQ(messages[before + sent][QV_KEY_BUNDLE_ID], "s " + bundle);
  EXPECT_EQ(messages.back()[QV_KEY_NAME], "s the last");
  EXPECT_EQ(MappedRegion(daemon.memory()).header().slotCount, 20u);
}

/// Whatever speaks there, whole or in pieces: the library believes a handshake alone.
TEST(Connection, AnswersThatAreNoHandshakeEndTheTry) {
  const FakeDaemon root;  // not started: for its folder
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s%s", getenv("QUORVELD_ROOT"), QV_SOCKET_PATH);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  const std::string ok = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\n";
  const std::pair<std::string, int> answers[] = {
      {ok + "AGREE_UNIX_FD\r\n", 0},     {ok + "ERROR\r\n", -EPROTO}, {"REJECTED EXTERNAL\r\n", -EPROTO},
      {std::string(4096, 'D'), -EPROTO}, {ok, -ECONNRESET},
  };
  for (const auto& [answer, expected] : answers) {
    int peer = -1;
    std::thread speaker([&, answer = answer, expected = expected] {
      peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      for (const char byte : answer) send(peer, &byte, 1, MSG_NOSIGNAL);
      char greeting[256];
      EXPECT_GT(recv(peer, greeting, sizeof greeting, 0), 0);
      EXPECT_EQ(greeting[0], '\0');
      if (expected == -ECONNRESET) shutdown(peer, SHUT_RDWR);
    });
    EXPECT_EQ(qv_connect(), expected) << answer;
    qv_disconnect();
    speaker.join();
    close(peer);
  }
  close(listener);
}

/// However often it has come and gone before.
TEST(Connection, AfterEachLossTheNextTryComesWithinASecond) {
  FakeDaemon daemon;
  daemon.start();
  ASSERT_EQ(watchPatiently("org.example.viewer", "viewer"), 0);
  std::chrono::milliseconds last{};
  for (int turn = 0; turn < 4; ++turn) {
    daemon.stop();
    ASSERT_TRUE(processUntil([] { return qv_process() < 0; }));
    daemon.start();
    const OwnTime time;
    ASSERT_TRUE(processUntil([] { return qv_process() == 0; }));
    last = time.elapsed();
  }
  EXPECT_LT(last, 4s) << "a wait that doubles has grown to 8 s";
}

TEST(Connection, ATryToBeWatchedThatCannotSucceedLeavesTheNextOneFree) {
  FakeDaemon daemon;
  daemon.start();
  EXPECT_EQ(qv_watch("caf\xe9", "viewer"), -EINVAL);
  EXPECT_EQ(qv_watch("org.example.viewer", std::string(QV_TEXT_MAX + 1, 'x').c_str()), -ENAMETOOLONG);
  ASSERT_EQ(qv_connect(), 0);
  daemon.stop();
  // Nothing has noticed yet that the connection is lost.
  EXPECT_LT(qv_watch("org.example.viewer", "viewer"), 0);
  EXPECT_EQ(qv_watch("org.example.viewer", "viewer"), -EALREADY) << "the next connection registers";
  daemon.start();
  EXPECT_TRUE(processUntil([&] { return daemon.memory() >= 0; }));
}

/// A child without standard streams, which then opens some of its own.
TEST(Connection, NothingThatAnApplicationPrintsGoesToTheDaemon) {
  FakeDaemon daemon;
  daemon.start();
  const pid_t child = fork();
  if (child == 0) {
    alarm(quorveld::tests::kPatience.count());
    close_range(0, 2, 0);
    if (watchPatiently("org.example.child", "child") != 0) _exit(1);
    for (int fd = 0; fd <= 2; ++fd)
      if (fcntl(fd, F_GETFD) >= 0) _exit(2);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(Connection, AForkedChildHoldsNoConnectionOpen) {
  FakeDaemon daemon;
  daemon.start();
  ASSERT_EQ(watchPatiently("org.example.viewer", "viewer"), 0);
  daemon.await(1);
  const pid_t child = fork();
  if (child == 0) {
    alarm(quorveld::tests::kPatience.count());
    if (qv_process() != -ENOTCONN) _exit(1);
    if (watchPatiently("org.example.child", "child") != 0) _exit(2);
    pause();
  }
  const auto messages = daemon.await(2);
  EXPECT_EQ(messages.size(), 2u);
  qv_disconnect();
  EXPECT_TRUE(eventually([&] { return daemon.connections() == 1; }));  // the child's own
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
}
