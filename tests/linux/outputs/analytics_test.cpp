#include "platform/linux/outputs/analytics.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <limits>
#include <thread>

#include "client/include/quorvel.h"
#include "platform/linux/base/unique_fd.h"
#include "tests/linux/scratch_root.h"
#include "tests/patience.h"
#include "tests/sim/sim_platform.h"

namespace quorveld::linux_platform {
namespace {

using std::chrono::milliseconds;

constexpr const char* kFile = "var/lib/quorveld/quorveld.prom";

class Analytics : public testing::Test {
 protected:
  size_t linesWith(const std::string& part) const {
    std::stringstream lines(root_.read(kFile));
    size_t count = 0;
    for (std::string line; std::getline(lines, line);) count += line.find(part) != std::string::npos ? 1 : 0;
    return count;
  }

  /// What is written is written beside the queue.
  void expectSoon(const std::string& part) const {
    EXPECT_TRUE(tests::eventually([&] { return root_.exists(kFile) && linesWith(part) == 1; })) << part;
  }

  sim::SimPlatform sim_;  // for its log and a queue on virtual time
  const ScratchRoot root_;
  std::unique_ptr<platform::MainQueue> queue_ =
      sim_.queues.createMain("test", platform::QoSClass::userInitiated);
};

TEST(PrometheusText, EscapesKeysAndSumsUpBuckets) {
  Metrics metrics;
  metrics.scalars["a\"b\\c\nd\xff\xed\xa0\x80"] = -5;
  metrics.counters["hängt"] = std::numeric_limits<uint64_t>::max();
  for (const double value : {-1.0, 50.0, 50.5, 300000.0, 300001.0}) metrics.distributions["d"].add(value);
  metrics.distributionLabels["d"] = {.hang = "Main\"Thread", .bundle = "", .process = "viewer"};
  const std::string text = prometheusText(metrics, {.cpuSeconds = 1.5, .spoolBytes = 70});
  const std::string bad = "\xEF\xBF\xBD";
  const auto has = [&](const std::string& line) {
    return text.find("\n" + line + "\n") != std::string::npos;
  };
  EXPECT_TRUE(has("quorveld_scalar{key=\"a\\\"b\\\\c\\nd" + bad + bad + bad + bad + "\"} -5"));
  EXPECT_TRUE(has("quorveld_build_info{version=\"" QV_VERSION "\"} 1"));
  EXPECT_TRUE(has("# TYPE quorveld_events_total counter"));
  EXPECT_TRUE(has("quorveld_events_total{key=\"hängt\"} 18446744073709551615"));
  EXPECT_TRUE(has("# TYPE quorveld_duration_seconds histogram"));
  EXPECT_TRUE(has(
      "quorveld_duration_seconds_bucket{key=\"d\",hang=\"Main\\\"Thread\",process=\"viewer\",le=\"0.05\"} 2"));
  EXPECT_TRUE(has(
      "quorveld_duration_seconds_bucket{key=\"d\",hang=\"Main\\\"Thread\",process=\"viewer\",le=\"0.1\"} 3"));
  EXPECT_TRUE(has(
      "quorveld_duration_seconds_bucket{key=\"d\",hang=\"Main\\\"Thread\",process=\"viewer\",le=\"300\"} 4"));
  EXPECT_TRUE(has(
      "quorveld_duration_seconds_bucket{key=\"d\",hang=\"Main\\\"Thread\",process=\"viewer\",le=\"+Inf\"} 5"));
  EXPECT_TRUE(
      has("quorveld_duration_seconds_sum{key=\"d\",hang=\"Main\\\"Thread\",process=\"viewer\"} 600.1005"));
  EXPECT_TRUE(has("quorveld_duration_seconds_count{key=\"d\",hang=\"Main\\\"Thread\",process=\"viewer\"} 5"))
      << text;
  EXPECT_TRUE(has("quorveld_cpu_seconds_total 1.5"));
  EXPECT_TRUE(has("quorveld_spool_bytes 70"));
  EXPECT_EQ(prometheusText({}, {}).find("key="), std::string::npos);
}

TEST_F(Analytics, FileIsWrittenOnceASecondAfterAChangeAndAtTheEnd) {
  {
    LinuxAnalytics analytics;
    analytics.useQueue(*queue_);
    analytics.addToScalar("k", 2, {});
    analytics.addToScalar("k", -1, {});
    analytics.pushDistribution("d", std::numeric_limits<double>::quiet_NaN(), {});
    sim_.advance(milliseconds(500));
    analytics.addToScalar("k", 3, {});
    EXPECT_FALSE(root_.exists(kFile));
    sim_.advance(milliseconds(600));
    expectSoon("quorveld_events_total{key=\"k\"} 5");
    EXPECT_EQ(linesWith("distribution"), 0u);

    analytics.addToScalar("k", 1, {});
    sim_.advance(milliseconds(800));
    EXPECT_EQ(linesWith("quorveld_events_total{key=\"k\"} 5"), 1u);
    sim_.advance(milliseconds(300));
    expectSoon("quorveld_events_total{key=\"k\"} 6");

    std::filesystem::remove(root_ / kFile);
    sim_.advance(milliseconds(5000));
    EXPECT_FALSE(root_.exists(kFile));  // nothing has changed
    analytics.setScalar("s", 7);
  }
  EXPECT_EQ(linesWith("quorveld_scalar{key=\"s\"} 7"), 1u);
  sim_.advance(milliseconds(5000));  // the delayed writing finds nobody

  LinuxAnalytics next;
  next.useQueue(*queue_);
  sim_.advance(milliseconds(1100));
  EXPECT_TRUE(tests::eventually([&] { return linesWith("key=") == 0; })) << "what the one before counted";
  EXPECT_EQ(linesWith("quorveld_build_info"), 3u);
}

TEST_F(Analytics, KeysBeyondTheLimitShareOneAndNothingIsLostOfThoseThatGo) {
  constexpr platform::KeyOwner kFlood{1000, 7};
  constexpr platform::KeyOwner kHonest{1001, 8};
  {
    LinuxAnalytics analytics;
    for (size_t i = 0; i < kMaxAnalyticsKeys; ++i) analytics.addToScalar("k" + std::to_string(i), 1, kFlood);
    for (size_t i = 0; i < kMaxAnalyticsKeys; ++i)
      analytics.pushDistribution("d" + std::to_string(i), 60, kFlood);
    EXPECT_TRUE(sim_.logs.lines.empty());
    for (int i = 0; i < 10; ++i) analytics.addToScalar("more" + std::to_string(i), 1, kFlood);
    analytics.addToScalar("k1", 1, kFlood);
    analytics.addToScalar("honest", 5, kHonest);  // in the place of k0
    analytics.pushDistribution("honest", 5, kHonest);
    analytics.setScalar(std::string(kMaxAnalyticsKeyBytes, 'x') + "cut", 1);
  }
  EXPECT_EQ(linesWith("quorveld_events_total{"), kMaxAnalyticsKeys + 1);
  EXPECT_EQ(linesWith("quorveld_events_total{key=\"(other)\"} 11"), 1u);
  EXPECT_EQ(linesWith("quorveld_events_total{key=\"k0\"}"), 0u);
  EXPECT_EQ(linesWith("quorveld_events_total{key=\"k1\"} 2"), 1u);
  EXPECT_EQ(linesWith("quorveld_events_total{key=\"honest\"} 5"), 1u);
  EXPECT_EQ(linesWith("quorveld_duration_seconds_count{key=\"(other)\"} 1"), 1u);
  EXPECT_EQ(linesWith("quorveld_duration_seconds_bucket{key=\"(other)\",le=\"0.05\"} 0"), 1u);
  EXPECT_EQ(linesWith("quorveld_duration_seconds_sum{key=\"(other)\"} 0.06"), 1u);
  EXPECT_EQ(linesWith("xx\"} 1"), 1u);
  EXPECT_EQ(sim_.logs.lines.size(), 1u) << sim_.logs.dump();
}

TEST(AnalyticsKeys, APlaceChangesHandsOnlyToWhoHasLessOrWhenItIsIdle) {
  AnalyticsKeys keys;
  AnalyticsKeys::Time now{};
  int serial = 0;
  /// How many of `count` new names get a place.
  const auto places = [&](uint32_t uid, int32_t pid, int count) {
    int admitted = 0;
    for (int i = 0; i < count; ++i) {
      now += milliseconds(1);
      admitted += keys.admit("k" + std::to_string(serial++), {uid, pid}, now).admitted ? 1 : 0;
    }
    return admitted;
  };
  EXPECT_EQ(keys.admit("own", {}, now).admitted, true);
  EXPECT_EQ(places(1, 0, 1000), 255) << "a client that announces pid 0 isn't the daemon";
  EXPECT_EQ(places(2, 20, 1000), 127) << "half of what clients have, 128 are left to the other";
  EXPECT_EQ(places(1, 0, 1000), 0);
  // Among one user's processes it is the same: 128 of the first one, and what a second one may take of them.
  EXPECT_EQ(places(1, 11, 1000), 64);
  EXPECT_EQ(places(3, 30, 1000), 85) << "a third";
  EXPECT_TRUE(keys.admit("own", {}, now).admitted);

  now += kAnalyticsKeyIdle;
  EXPECT_TRUE(keys.admit("own", {}, now).admitted);
  EXPECT_EQ(places(3, 30, 1000), 255) << "given back, all of them";
}

TEST_F(Analytics, ASeriesKeepsItsFirstLabelsWhoeverElseMakesUpItsKey) {
  {
    LinuxAnalytics analytics;
    const platform::KeyOwner honest{.uid = 1000, .pid = 7, .hang = "a", .bundle = "b.c"};
    const platform::KeyOwner forger{.uid = 1001, .pid = 8, .hang = "a.b", .bundle = "c"};
    analytics.pushDistribution("a.b.c", 5, honest);
    analytics.pushDistribution("a.b.c", 5, forger);
    analytics.addToScalar("a.b.c", 1, honest);
    for (size_t i = 1; i < kMaxAnalyticsKeys; ++i) analytics.addToScalar(std::to_string(i), 1, honest);
    analytics.addToScalar("x", 1, forger);  // in the place of the longest unused
  }
  EXPECT_EQ(linesWith("quorveld_events_total{key=\"a.b.c\""), 0u) << "it gave up its place";
  EXPECT_EQ(linesWith("_count{key=\"a.b.c\",hang=\"a\",bundle=\"b.c\"} 2"), 1u);
}

TEST_F(Analytics, StatsdGetsADatagramForEachChangeAndNobodyWaitsForIt) {
  const std::string path = root_ / "statsd";
  const UniqueFd server(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const auto received = [&] {
    std::array<char, 512> buffer;
    const ssize_t length = ::recv(server.get(), buffer.data(), buffer.size(), 0);
    return std::string(buffer.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
  };

  ::setenv("QUORVELD_STATSD", path.c_str(), 1);
  LinuxAnalytics analytics;
  analytics.useQueue(*queue_);
  ::unsetenv("QUORVELD_STATSD");
  analytics.setScalar("a:b|c@d\ne", 5);
  analytics.setScalar("a", -5);
  analytics.addToScalar("c", 1, {});
  analytics.pushDistribution("d", 1e22, {});
  EXPECT_EQ(received(), "a_b_c_d_e:5|g");
  EXPECT_EQ(received(), "a:0|g\na:-5|g");
  EXPECT_EQ(received(), "c:1|c");
  EXPECT_EQ(received(), "d:10000000000000000000000|ms");
  for (int i = 0; i < 20'000; ++i) analytics.addToScalar("flood", 1, {});
  EXPECT_EQ(received(), "flood:1|c");
  std::filesystem::remove(path);
  analytics.addToScalar("nobody", 1, {});
  EXPECT_TRUE(sim_.logs.lines.empty()) << sim_.logs.dump();
}

TEST_F(Analytics, StatsdHostIsLookedUpBesideTheQueueAndRefusedWithAReason) {
  for (const auto& [target, line] :
       {std::pair("nothing", "QUORVELD_STATSD=nothing is not used: neither a socket's path nor host:port"),
        std::pair("127.0.0.1:nonsense", "QUORVELD_STATSD=127.0.0.1:nonsense is not used: ")}) {
    ::setenv("QUORVELD_STATSD", target, 1);
    EXPECT_TRUE(tests::eventually([&, &said = line] {
      {
        LinuxAnalytics analytics;
        analytics.useQueue(*queue_);
        std::this_thread::sleep_for(milliseconds(50));  // it may be looked up by then
      }
      return sim_.logs.hasPrefix(platform::LogLevel::standard, said);
    })) << line;
  }
  const UniqueFd server(::socket(AF_INET, SOCK_DGRAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::getsockname(server.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  ::setenv("QUORVELD_STATSD", ("127.0.0.1:" + std::to_string(ntohs(address.sin_port))).c_str(), 1);
  LinuxAnalytics analytics;
  analytics.useQueue(*queue_);
  ::unsetenv("QUORVELD_STATSD");
  std::array<char, 16> datagram{};
  EXPECT_TRUE(tests::eventually([&] {
    analytics.addToScalar("k", 1, {});
    return ::recv(server.get(), datagram.data(), datagram.size(), MSG_DONTWAIT) > 0;
  }));
  EXPECT_STREQ(datagram.data(), "k:1|c");
}

TEST(Statsd, SplitsHostAndPort) {
  const auto joined = [](std::string_view target) {
    const HostAndPort parts = parseHostAndPort(target);
    return parts.host + " " + parts.port;
  };
  EXPECT_EQ(joined("localhost:8125"), "localhost 8125");
  EXPECT_EQ(joined("[::1]:8125"), "::1 8125");
  for (const char* bad : {"", "localhost", ":8125", "localhost:", "[]:1"}) EXPECT_EQ(joined(bad), " ") << bad;
}

}  // namespace
}  // namespace quorveld::linux_platform
