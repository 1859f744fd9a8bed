#include <gtest/gtest.h>

#include "base/log.h"
#include "tests/sim/world.h"

// The message protocol: each command with what may be missing or of another type, and what else a connection
// delivers.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using platform::IpcErrorKind;
using sim::App;
using sim::Level;
using sim::SimMessage;
using sim::World;

struct Exchange {
  const char* what;
  SimMessage message;
  std::vector<std::string> lines;  ///< "default …", "info …", "debug …"; a last '*' stands for anything
};

std::vector<std::string> linesOf(World& world, const App& app, const SimMessage& message) {
  static constexpr const char* kLevels[] = {"default ", "info ", "debug "};
  world.logs.clear();
  app.send(message);
  std::vector<std::string> lines;
  for (const sim::LogLine& line : world.logs.lines)
    lines.push_back(kLevels[static_cast<int>(line.level)] + line.text);
  return lines;
}

void expectLines(const std::vector<std::string>& actual, const std::vector<std::string>& expected) {
  ASSERT_EQ(actual.size(), expected.size()) << testing::PrintToString(actual);
  for (size_t i = 0; i < actual.size(); ++i) {
    if (expected[i].ends_with('*')) {
      EXPECT_EQ(actual[i].substr(0, expected[i].size() - 1), expected[i].substr(0, expected[i].size() - 1));
    } else {
      EXPECT_EQ(actual[i], expected[i]);
    }
  }
}

TEST(Messages, OfAProcessThatIsNotWatched) {
  const std::string unknown = "default Don't know how to handle 0x*";
  const std::string noMemory = "default Didn't get shmem from no longer watching 501";
  const Exchange exchanges[] = {
      {"empty", {}, {unknown}},
      {"0", {{"command", 0}}, {unknown}},
      {"9", {{"command", 9}}, {unknown}},
      {"-1", {{"command", -1}}, {unknown}},
      {"1 beyond 32 bits", {{"command", int64_t{0x1'0000'0001}}}, {unknown}},
      {"unsigned", {{"command", uint64_t{2}}}, {unknown}},
      {"text", {{"command", "2"}}, {unknown}},
      {"first of two", {{"command", 9}, {"command", 2}}, {unknown}},
      {"start without memory", {{"command", 1}, {"bundle-id", "b"}}, {noMemory}},
      {"start with a text", {{"command", 1}, {"shmem", "b"}}, {noMemory}},
      {"stop", {{"command", 2}}, {}},
      {"hang",
       {{"command", 3}, {"name", "n"}},
       {"default Got hang detected message for a pid we're not monitoring: 501"}},
      {"fence begin", {{"command", 6}}, {"info QVFenceTracking: Fence begin"}},
      {"fence end",
       {{"command", 7}, {"name", -1}},
       {"info QVFenceTracking: Fence end",
        "default QVFenceTracking: Fence end, failed to find corresponding fence(18446744073709551615)"}},
      {"begin without a bundle",
       {{"command", 4}, {"bundle-id", 7}, {"startTime", int64_t{5}}},
       {"debug QVActivationStats: Noting an app activation begin",
        "info QVActivationStats: ActivationBegin Command: Pid:0 BundleID:(null) "
        "StartTime:0 IPXStartTime:0 Foreground:0 ActivationType:0",
        "default QVActivationStats: Failed to get bundle-id for app activation begin command, "
        "this activation will be ignored"}},
      {"end without a bundle",
       {{"command", 5}},
       {"debug QVActivationStats: Noting an app activation end",
        "info QVActivationStats: ActivationEnd Command: Pid:0 BundleID:(null) EndTime:0 "
        "Foreground:0 ActivationResult:0",
        "default QVActivationStats: Failed to get bundleID for app activation end command, ignoring this"}},
  };
  World world;
  const App app = world.connectApp("viewer");
  for (const Exchange& exchange : exchanges) {
    SCOPED_TRACE(exchange.what);
    expectLines(linesOf(world, app, exchange.message), exchange.lines);
  }
  EXPECT_TRUE(world.spool().empty());
}

TEST(Messages, OfAWatchedProcess) {
  const Exchange exchanges[] = {
      {"hang without keys", {{"command", 3}}, {"info viewer: Hang detected 0.00s ((null))"}},
      {"hang with wrong types",
       {{"command", 3}, {"name", 5}, {"startTime", uint64_t{9}}, {"endTime", "9"}, {"saveReport", 1}},
       {"info viewer: Hang detected 0.00s ((null))"}},
      {"hang of negative length",
       {{"command", 3}, {"name", "n"}, {"startTime", 24'000'000}, {"endTime", 0}},
       {"info viewer: Hang detected 768614303.00s (n)"}},  // the difference wraps
      {"hang of all there is",
       {{"command", 3}, {"name", "n"}, {"startTime", 0}, {"endTime", -1}},
       {"info viewer: Hang detected 768614*"}},
  };
  World world;
  const App app = world.startApp("viewer");
  for (const Exchange& exchange : exchanges) {
    SCOPED_TRACE(exchange.what);
    const auto lines = linesOf(world, app, exchange.message);
    if (exchange.what == std::string("hang of negative length")) {
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_TRUE(lines[0].starts_with("info viewer: Hang detected 7686")) << lines[0];
    } else {
      expectLines(lines, exchange.lines);
    }
  }
  EXPECT_TRUE(world.traceLibraries.requests.empty());
}

TEST(Messages, ActivationsAreToldWithTheirKeysNarrowed) {
  World world;
  world.connectApp("launcher")
      .send({{"command", 4},
             {"pid", int64_t{0x1'0000'0007}},
             {"bundle-id", "com.example.viewer"},
             {"startTime", uint64_t{790'164'000'000}},
             {"ipxStartLatency", uint64_t{790'163'999'999}},
             {"app-activation-state", 1},
             {"app-activation-type", 1}});
  EXPECT_TRUE(world.logged(Level::info,
                           "QVActivationStats: ActivationBegin Command: Pid:7 BundleID:com.example.viewer "
                           "StartTime:790164000000 IPXStartTime:790163999999 Foreground:1 ActivationType:1"));
  EXPECT_TRUE(
      world.logged(Level::info, "QVActivationStats: com.example.viewer[7] activation begin (launch)"));
  const App launcher = world.connectApp("launcher");
  launcher.send({{"command", 4}, {"pid", 8}, {"bundle-id", "b"}, {"app-activation-type", 2}});
  EXPECT_TRUE(world.logged(Level::info, "QVActivationStats: b[8] activation begin (resume)"));
  launcher.send({{"command", 5},
                 {"pid", 8},
                 {"bundle-id", "b"},
                 {"endTime", uint64_t{790'164'000'100}},
                 {"app-activation-state", 1},
                 {"app-activation-result", -3}});
  EXPECT_TRUE(world.logged(Level::info,
                           "QVActivationStats: ActivationEnd Command: Pid:8 BundleID:b EndTime:790164000100 "
                           "Foreground:1 ActivationResult:-3"));
  EXPECT_TRUE(world.logged(Level::info, "QVActivationStats: b[8] activation end"));
}

TEST(Messages, WithoutAPidOfTheSenderNoCommandIsTaken) {
  World world;
  for (const int32_t pid : {0, -1}) {
    const sim::SimClient client = world.ipc.connect(pid);
    world.settle();
    EXPECT_TRUE(world.logged(Level::info, "IPX: Client started new connection: pid " + std::to_string(pid)));
    world.logs.clear();
    for (int64_t command = 0; command < 10; ++command) {
      client.send({{"command", command}, {"pid", 600}, {"bundle-id", "b"}});
    }
    world.settle();
    EXPECT_EQ(world.logs.count(Level::info, std::to_string(pid) + " is not a valid pid to watch"), 10);
    EXPECT_EQ(world.logs.lines.size(), 10u);
  }
}

TEST(Messages, WhatElseAConnectionDelivers) {
  World world;
  const App viewer = world.startApp("viewer");
  EXPECT_TRUE(world.logged(Level::info, "IPX: Client started new connection: pid 501"));
  viewer.client().fail(IpcErrorKind::terminationImminent, "going down");
  viewer.client().fail(IpcErrorKind::connectionInterrupted, "broken");
  viewer.client().fail(IpcErrorKind::other, "odd");
  viewer.client().sendOdd("<array>");
  world.logs.clear();
  world.settle();
  EXPECT_EQ(world.lines(Level::info), std::vector<std::string>{"Termination imminent!"});
  EXPECT_EQ(world.lines(Level::standard),
            (std::vector<std::string>{"Unexpected error: broken", "Unexpected error: odd",
                                      "We got a non-dictionary event: <array>"}));
  EXPECT_EQ(viewer.memory().mappings(), 1) << "the peer stays, and watched";
  viewer.disconnect();
  EXPECT_TRUE(world.logged(Level::info, "Client disconnected: 501"));
  EXPECT_EQ(viewer.memory().mappings(), 0);
}

TEST(Messages, WhatElseTheListenerDelivers) {
  World world;
  const App viewer = world.startApp("viewer");
  const App editor = world.startApp("editor");
  world.logs.clear();
  world.ipc.errorPid = viewer.pid();
  world.ipc.failListener(IpcErrorKind::connectionInvalid, "gone");
  world.ipc.failListener(IpcErrorKind::connectionInterrupted, "accept failed");
  world.ipc.failListener(IpcErrorKind::terminationImminent, "shutdown");
  world.ipc.failListener(IpcErrorKind::other, "odd");
  world.ipc.oddListenerEvent("<what>");
  world.settle();
  EXPECT_EQ(world.lines(Level::info),
            std::vector<std::string>{"ipx_error_connection_invalid gone - stop watching pid 501"});
  EXPECT_EQ(viewer.memory().mappings(), 0);
  EXPECT_EQ(editor.memory().mappings(), 1);
  const std::vector<std::string> lines = world.lines(Level::standard);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "ipx_error_connection_interrupted: accept failed");
  EXPECT_TRUE(lines[1].starts_with("quorveld: Connection error: 0x") && lines[1].ends_with(" : shutdown"))
      << lines[1];
  EXPECT_TRUE(lines[2].ends_with(" : odd"));
  EXPECT_TRUE(lines[3].starts_with("quorveld: unknown event type : 0x")) << lines[3];
}

TEST(Messages, LaunchesOfAnotherUsersProcessAreNotHeardWhichIsSaidOnceAPeer) {
  World world;
  world.ipc.processesOfRoot = {8};
  const auto announce = [&](const sim::SimClient& client, int64_t command, int64_t pid) {
    client.send(
        {{"command", command}, {"pid", pid}, {"bundle-id", "b"}, {"app-activation-type", int64_t{1}}});
    world.settle();
  };
  const sim::SimClient stranger = world.ipc.connect(900, 1000);
  announce(stranger, 4, 8);
  announce(stranger, 5, 8);
  EXPECT_EQ(world.logs.count(
                Level::standard,
                "QVActivationStats: Not hearing pid 900 of user 1000: the launched pid 8 is another user's"),
            1);
  EXPECT_FALSE(world.logged(Level::info, "QVActivationStats: b[8] activation begin (launch)"));
  announce(stranger, 4, 9);
  EXPECT_TRUE(world.logged(Level::info, "QVActivationStats: b[9] activation begin (launch)"));
  announce(world.ipc.connect(1, 0), 4, 8);
  EXPECT_TRUE(world.logged(Level::info, "QVActivationStats: b[8] activation begin (launch)"));
}

TEST(LogSender, GivesTheThreadBackToWhomItLoggedForBefore) {
  World world;
  const LogSender outer(1);
  { const LogSender inner(2); }
  EXPECT_EQ(world.logs.sender, 1u);
}

}  // namespace
}  // namespace quorveld
