#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <vector>

#include "platform/clock.h"
#include "platform/device.h"
#include "platform/files.h"
#include "platform/ipc.h"
#include "platform/kernel.h"
#include "platform/log.h"
#include "platform/notifications.h"
#include "platform/trace_library.h"
#include "platform/work_queue.h"
#include "tests/contract/bench.h"
#include "tests/patience.h"

// The promises of platform/*.h that both the real and the simulated platform keep.

namespace quorveld::contract {
namespace {

using namespace std::chrono_literals;
using platform::EntryKind;
using platform::IpcErrorKind;
using platform::PreferenceValue;
using platform::QoSClass;
using platform::WallTime;
using std::chrono::nanoseconds;

class Contract : public testing::TestWithParam<BenchFactory> {
 protected:
  static constexpr int kDone = 3;
  static constexpr int kTooLate = 4;

  void SetUp() override {
    bench_ = GetParam().make();
    main_ = platform().queues.createMain("contract.main", QoSClass::userInitiated);
  }

  const platform::Platform& platform() { return bench_->platform(); }

  /// Serves the main queue until `done` says so.
  void serveUntil(std::function<bool()> done) {
    main_->after(tests::kPatience, [this] { main_->quit(kTooLate); });
    poll(std::move(done));
    EXPECT_EQ(main_->run(), kDone) << "the test waited in vain";
  }

  /// Serves the main queue for a while, for what must not happen.
  void serveFor(nanoseconds time) {
    main_->after(time, [this] { main_->quit(kDone); });
    EXPECT_EQ(main_->run(), kDone);
  }

  nanoseconds now() { return nanoseconds(platform().clock.absoluteTime() * 125 / 3); }

  std::unique_ptr<Bench> bench_;
  std::unique_ptr<platform::MainQueue> main_;

 private:
  void poll(std::function<bool()> done) {
    main_->async([this, done = std::move(done)] {
      if (done()) {
        main_->quit(kDone);
      } else {
        main_->after(1ms, [this, done] { poll(done); });
      }
    });
  }
};

TEST_P(Contract, TasksRunOneAfterAnotherInTheOrderInWhichTheyBecameDue) {
  std::string order;
  const nanoseconds start = now();
  nanoseconds delayed{};
  EXPECT_TRUE(main_->isCurrent());
  main_->after(40ms, [&] { order += 'e'; });
  main_->after(20ms, [&] {
    order += 'd';
    delayed = now() - start;
  });
  main_->async([&] {
    order += 'a';
    main_->async([&] { order += 'c'; });
    EXPECT_TRUE(main_->isCurrent());
  });
  main_->async([&] { order += 'b'; });
  serveUntil([&] { return order.size() == 5; });
  EXPECT_EQ(order, "abcde");
  EXPECT_GE(delayed, 20ms - 1us);
  EXPECT_EQ(main_->label(), "contract.main");
}

TEST_P(Contract, QuitEndsTheLoopAfterTheTaskAtHand) {
  std::string order;
  main_->async([&] {
    main_->quit(7);
    order += 'a';
  });
  main_->async([&] { order += 'b'; });
  EXPECT_EQ(main_->run(), 7);
  EXPECT_EQ(order, "a");
}

TEST_P(Contract, QuitBeforeTheLoopMakesItReturnAtOnce) {
  main_->quit(5);
  EXPECT_EQ(main_->run(), 5);
}

TEST_P(Contract, AnotherQueueRunsItsOwnTasksAndIsGoneWithWhatIsWaiting) {
  auto other = platform().queues.create("contract.other", QoSClass::utility);
  EXPECT_FALSE(other->isCurrent());
  std::atomic<bool> back = false;
  std::atomic<bool> late = false;
  std::string order;  // the other queue's until `back`
  other->async([&] {
    EXPECT_TRUE(other->isCurrent());
    EXPECT_FALSE(main_->isCurrent());
    order += 'a';
  });
  other->after(5ms, [&] {
    order += 'b';
    main_->async([&] { back = true; });
  });
  other->after(24h, [&] { late = true; });
  serveUntil([&] { return back.load(); });
  other.reset();
  EXPECT_EQ(order, "ab");
  EXPECT_FALSE(late);
}

TEST_P(Contract, ATimerKeepsItsPeriodIsRearmedAndStopsWhenDestroyed) {
  const nanoseconds start = now();
  std::vector<nanoseconds> fired;
  std::unique_ptr<platform::Timer> timer;
  timer = main_->repeat({20ms, 10ms, 0ms}, [&] {
    fired.push_back(now() - start);
    if (fired.size() == 3) timer->rearm({60ms, 5ms, 0ms});
    if (fired.size() == 5) timer.reset();
  });
  serveUntil([&] { return fired.size() >= 5 && now() - start > fired.back() + 20ms; });
  ASSERT_EQ(fired.size(), 5u);
  const nanoseconds slack = 1us;  // what counting in ticks cuts off
  EXPECT_GE(fired[0], 20ms - slack);
  EXPECT_GE(fired[1], 30ms - slack);
  EXPECT_GE(fired[2], 40ms - slack);
  EXPECT_GE(fired[3] - fired[2], 60ms - slack);
  EXPECT_GE(fired[4] - fired[2], 65ms - slack);
}

TEST_P(Contract, ATimerThatIsDueWhileItIsDestroyedDoesNotFire) {
  bool fired = false;
  main_->async([&] {
    auto timer = main_->repeat({1ms, 1ms, 0ms}, [&] { fired = true; });
    const nanoseconds start = now();
    while (GetParam().make != makeSimBench && now() - start < 5ms) {
    }
    timer.reset();
  });
  serveFor(20ms);
  EXPECT_FALSE(fired);
}

TEST_P(Contract, AWallClockDeadlineIsKeptAndAPastOneIsDueAtOnce) {
  const WallTime start = platform().clock.wallTime();
  WallTime fired{};
  bool past = false;
  main_->atWallTime(start - 1h, [&] { past = true; });
  main_->atWallTime(start + 30ms, [&] {
    EXPECT_TRUE(past);
    fired = platform().clock.wallTime();
  });
  main_->atWallTime(start + 24h, [] { FAIL(); });
  serveUntil([&] { return fired != WallTime{}; });
  EXPECT_GE(fired, start + 30ms);
}

TEST_P(Contract, TheClockTicksAt24MHzAndKnowsTheBoot) {
  const platform::Timebase timebase = platform().clock.timebase();
  EXPECT_EQ(timebase.numer, 125u);
  EXPECT_EQ(timebase.denom, 3u);
  // Each reading of the wall clock lies between two of the ticks, however long the machine takes between
  // them.
  const nanoseconds beforeFirst = now();
  const WallTime first = platform().clock.wallTime();
  const nanoseconds afterFirst = now();
  serveFor(20ms);
  const nanoseconds beforeSecond = now();
  const WallTime second = platform().clock.wallTime();
  const nanoseconds afterSecond = now();
  EXPECT_GE(second - first, beforeSecond - afterFirst - 1ms);
  EXPECT_LE(second - first, afterSecond - beforeFirst + 1ms);
  const auto boot = platform().clock.bootTimeSeconds();
  ASSERT_TRUE(boot);
  EXPECT_LE(*boot, std::chrono::floor<std::chrono::seconds>(first.time_since_epoch()).count());
}

TEST_P(Contract, StatusAndReloadRequestsRunTheirTasksOnTheMainQueue) {
  std::string asked;
  main_->onStatusRequest([&] {
    EXPECT_TRUE(main_->isCurrent());
    asked += "status ";
  });
  main_->onReloadRequest([&] {
    EXPECT_TRUE(main_->isCurrent());
    asked += "reload ";
  });
  bench_->requestReload();  // before the queue is served: it waits
  main_->after(1ms, [&] { bench_->requestStatus(); });
  serveUntil([&] { return asked == "reload status "; });
}

TEST_P(Contract, FilesAreCreatedMovedAndReplacedWithoutSurprises) {
  platform::Files& files = platform().files;
  const std::string sub = bench_->directory() + "/sub";
  EXPECT_EQ(files.kind(sub), EntryKind::missing);
  EXPECT_FALSE(files.makeDirectory(sub, 0755));
  EXPECT_EQ(files.kind(sub), EntryKind::directory);
  EXPECT_EQ(files.makeDirectory(sub, 0755), std::errc::file_exists);
  EXPECT_TRUE(files.remove(sub));  // no file

  std::error_code error;
  auto write = [&](const std::string& path, std::string_view bytes) {
    auto file = files.createProtected(path, error);
    ASSERT_TRUE(file) << error.message();
    EXPECT_GE(file->descriptor(), 0);
    EXPECT_FALSE(file->write(bytes));
  };
  const auto finish = [&](const std::string& from, const std::string& to) {
    auto file = files.createProtected(from, error);
    EXPECT_TRUE(file) << error.message();
    std::promise<std::error_code> result;
    files.finish(std::move(file), from, to, [&](std::error_code failure) { result.set_value(failure); });
    return result.get_future().get();
  };
  write(sub + "/a", "first");
  write(sub + "/a", "FI");  // opens what is there, without truncation
  EXPECT_EQ(files.kind(sub + "/a"), EntryKind::other);
  EXPECT_EQ(bench_->content(sub + "/a"), "FIrst");
  write(sub + "/b", "second");

  EXPECT_EQ(finish(sub + "/a", sub + "/b"), std::errc::file_exists);
  EXPECT_EQ(bench_->content(sub + "/b"), "second");
  EXPECT_EQ(files.kind(sub + "/a"), EntryKind::missing) << "what can't be finished goes";
  EXPECT_FALSE(finish(sub + "/b", sub + "/c"));
  EXPECT_EQ(bench_->content(sub + "/c"), "second");
  EXPECT_EQ(files.kind(sub + "/b"), EntryKind::missing);
  EXPECT_FALSE(files.remove(sub + "/c"));
  EXPECT_EQ(files.remove(sub + "/c"), std::errc::no_such_file_or_directory);
  write(sub + "/report-1.half", "half");
  write(sub + "/other", "kept");
  EXPECT_FALSE(files.makeDirectory(sub + "/report-2.half", 0755));
  bench_->putLink(sub + "/report-3.half", sub + "/other");
  std::map<std::string, uint64_t> sizes;
  for (const platform::FileInfo& file : files.regularFiles(sub)) {
    sizes[file.name] = file.sizeBytes;
    EXPECT_LT(platform().clock.wallTime() - file.modified, 1h);
  }
  EXPECT_EQ(sizes, (std::map<std::string, uint64_t>{{"report-1.half", 4}, {"other", 4}}));
  EXPECT_TRUE(files.regularFiles(sub + "/missing").empty());
  const auto space = files.space(sub);
  ASSERT_TRUE(space);
  EXPECT_LE(space->freeBytes, space->totalBytes);
  EXPECT_FALSE(files.createProtected(bench_->directory() + "/no/such", error));
  EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST_P(Contract, NoFileIsCreatedThroughALink) {
  platform::Files& files = platform().files;
  const std::string link = bench_->directory() + "/link";
  const std::string target = bench_->directory() + "/target";
  bench_->putLink(link, target);
  EXPECT_EQ(files.kind(link), EntryKind::other);
  std::error_code error;
  EXPECT_FALSE(files.createProtected(link, error));
  EXPECT_TRUE(error);
  EXPECT_EQ(files.kind(target), EntryKind::missing);
  EXPECT_FALSE(files.remove(link));
  EXPECT_EQ(files.kind(link), EntryKind::missing);
}

TEST_P(Contract, JsonKeepsOrderAndEscapesAndRefusesWhatIsNoUtf8) {
  using platform::Array;
  using platform::Dictionary;
  const Dictionary dictionary = {{"z", {std::string("a\"b\\c/\n\x01\xC3\xA9")}},
                                 {"a", {Array{{int64_t{-1}}, {uint64_t{18446744073709551615u}}, {true}}}},
                                 {"m", {Dictionary{{"", {0.5}}}}}};
  std::string error;
  EXPECT_EQ(
      platform().files.serializeJson(dictionary, error),
      "{\"z\":\"a\\\"b\\\\c/\\n\\u0001\xC3\xA9\",\"a\":[-1,18446744073709551615,true],\"m\":{\"\":0.5}}");
  EXPECT_FALSE(platform().files.serializeJson({{"k", {std::string("\xFF")}}}, error));
  EXPECT_FALSE(error.empty());
}

TEST_P(Contract, ANotificationArrivesWithItsStateUntilItIsTakenOrTheSubscriptionGoes) {
  platform::Notifications& notifications = platform().notifications;
  int kept = 0;
  int dropped = 0;
  constexpr uint64_t kState = 18446744073709551615u;
  std::unique_ptr<platform::Subscription> subscription;
  subscription = notifications.subscribe("contract.kept", *main_, [&] {
    EXPECT_TRUE(main_->isCurrent());
    EXPECT_EQ(subscription->state(), kState);
    if (++kept == 2) return;
    for (int time = 0; time < 2; ++time)
      notifications.take("contract.kept");  // then there is nothing to take
    EXPECT_NE(subscription->state(), kState);
    main_->after(5ms, [&] {
      EXPECT_EQ(kept, 1) << "taking is no posting";
      bench_->postNotification("contract.kept", kState);
    });
  });
  auto gone = notifications.subscribe("contract.dropped", *main_, [&] { ++dropped; });
  main_->async([&] {
    bench_->postNotification("contract.dropped", 1);
    gone.reset();
    bench_->postNotification("contract.dropped", 2);
    bench_->postNotification("contract.other", 3);
    bench_->postNotification("contract.kept", kState);
  });
  serveUntil([&] { return kept == 2; });
  EXPECT_EQ(dropped, 0);
}

TEST_P(Contract, PreferencesAreAsOfTheLastSynchronisation) {
  platform::PreferencesStore& store = platform().preferences;
  const std::string domain = "com.corvix.contract";
  bench_->userSets({{"b", PreferenceValue(true)},
                    {"i", PreferenceValue(int64_t{-42})},
                    {"d", PreferenceValue(1.5)},
                    {"s", PreferenceValue(std::string("a<&>"))}},
                   domain);
  store.synchronise(domain);
  EXPECT_EQ(store.value("b", domain), PreferenceValue(true));
  EXPECT_EQ(store.value("i", domain), PreferenceValue(int64_t{-42}));
  EXPECT_EQ(store.value("d", domain), PreferenceValue(1.5));
  EXPECT_EQ(store.value("s", domain), PreferenceValue(std::string("a<&>")));
  EXPECT_FALSE(store.value("b", "com.corvix.other"));

  bench_->userSets({{"i", PreferenceValue(int64_t{7})}, {"n", PreferenceValue(int64_t{1})}}, domain);
  store.set("own", PreferenceValue(int64_t{2}), domain);
  store.remove("n", domain);
  EXPECT_EQ(store.value("i", domain), PreferenceValue(int64_t{-42}));
  EXPECT_EQ(store.value("own", domain), PreferenceValue(int64_t{2}));
  store.synchronise(domain);
  EXPECT_EQ(store.value("i", domain), PreferenceValue(int64_t{7})) << "what others wrote is kept and seen";
  EXPECT_EQ(store.value("own", domain), PreferenceValue(int64_t{2}));
  EXPECT_FALSE(store.value("n", domain));
}

TEST_P(Contract, AMissingOrBrokenManagedFileIsEmpty) {
  platform::PreferencesStore& store = platform().preferences;
  const std::string path = "/Library/Managed Preferences/mobile/.GlobalPreferences.plist";
  EXPECT_TRUE(store.managedDictionary(path).empty());
  const platform::PreferenceDictionary managed{{"QVProfile.QuorvelEnabled", PreferenceValue(false)}};
  bench_->putManaged(managed, path);
  EXPECT_EQ(store.managedDictionary(path), managed);
  bench_->breakManaged(path);
  EXPECT_TRUE(store.managedDictionary(path).empty());
}

TEST_P(Contract, AMessageArrivesTypedAndItsMemoryIsShared) {
  auto listener = platform().ipc.listen("com.corvix.quorveld", *main_);
  std::vector<std::string> events;
  std::vector<std::shared_ptr<platform::Peer>> peers;
  std::unique_ptr<platform::SharedMapping> mapping;
  auto onEvent = [&](const platform::IpcEvent& event) {
    EXPECT_TRUE(main_->isCurrent());
    const auto* message = std::get_if<const platform::IpcMessage*>(&event);
    if (!message) {
      const auto* error = std::get_if<const platform::IpcError*>(&event);
      ASSERT_TRUE(error);
      events.push_back((*error)->kind == IpcErrorKind::connectionInvalid ? "invalid" : (*error)->description);
      return;
    }
    const platform::IpcMessage& m = **message;
    if (platform::SharedMemory* memory = m.sharedMemory("shmem")) {
      mapping = memory->map();
      events.push_back("memory");
      return;
    }
    events.push_back("message");
    EXPECT_EQ(m.int64("x"), -5);
    EXPECT_EQ(m.uint64("t"), 18446744073709551615u);
    EXPECT_TRUE(m.boolean("b"));
    EXPECT_STREQ(m.string("s"), "text");
    EXPECT_EQ(m.int64("t") + m.int64("absent"), 0) << "another type counts as missing";
    EXPECT_EQ(m.uint64("x"), 0u);
    EXPECT_FALSE(m.boolean("x"));
    EXPECT_EQ(m.string("x"), nullptr);
    EXPECT_EQ(m.sharedMemory("s"), nullptr);
  };
  listener->setHandler([&](const platform::ListenerEvent& event) {
    const auto* peer = std::get_if<std::shared_ptr<platform::Peer>>(&event);
    ASSERT_TRUE(peer);
    EXPECT_EQ((*peer)->pid(), bench_->clientPid());
    (*peer)->setHandler(onEvent);
    peers.push_back(*peer);
    main_->after(10ms, [kept = *peer] { kept->resume(); });  // what was sent meanwhile waits
  });
  listener->resume();
  auto client = bench_->connect();
  client->send(
      {{"x", int64_t{-5}}, {"t", uint64_t{18446744073709551615u}}, {"b", true}, {"s", std::string("text")}});
  client->sendMemory(7208, 'Q');
  bool disconnected = false;
  serveUntil([&] {
    if (!disconnected && mapping) {
      EXPECT_EQ(mapping->lengthBytes(), 7208u);
      char* bytes = static_cast<char*>(mapping->address());
      EXPECT_EQ(bytes[0], 'Q');
      bytes[0] = 'R';
      EXPECT_EQ(client->firstByteOfMemory(), 'R');
      client->disconnect();
      disconnected = true;
    }
    return events.size() >= 3;
  });
  EXPECT_EQ(events, (std::vector<std::string>{"message", "memory", "invalid"}));
  peers.clear();
}

TEST_P(Contract, ADestroyedListenerDeliversNothingMore) {
  auto listener = platform().ipc.listen("com.corvix.quorveld", *main_);
  int arrived = 0;
  std::shared_ptr<platform::Peer> peer;
  listener->setHandler([&](const platform::ListenerEvent& event) {
    peer = std::get<std::shared_ptr<platform::Peer>>(event);
    peer->setHandler([&](const platform::IpcEvent&) { ++arrived; });
    peer->resume();
  });
  listener->resume();
  auto client = bench_->connect();
  client->send({{"x", int64_t{1}}});
  nanoseconds destroyed{};
  serveUntil([&] {
    if (arrived == 1 && listener) {
      listener.reset();
      client->send({{"x", int64_t{2}}});
      destroyed = now();
    }
    return !listener && now() - destroyed > 20ms;
  });
  EXPECT_EQ(arrived, 1);
}

TEST_P(Contract, ALogHandleIsMadeOnce) {
  platform::Logs& logs = platform().logs;
  EXPECT_EQ(&logs.handle("s", "c"), &logs.handle("s", "c"));
  EXPECT_NE(&logs.handle("s", "c"), &logs.handle("s", ""));
  EXPECT_TRUE(logs.handle("s", "c").enabled(platform::LogLevel::standard));
}

TEST_P(Contract, WhatIsMissingIsSaidAndNotInvented) {
  EXPECT_FALSE(platform().device.capability("NoSuchCapability"));
  EXPECT_FALSE(platform().kernel.executablePath(0x7FFFFFFF));
  std::string reason;
  EXPECT_FALSE(platform().traceLibraries.open(bench_->directory() + "/none.so", reason));
  EXPECT_NE(reason, "");
  for (int i = 0; i < 100; ++i) EXPECT_LT(platform().device.uniformRandom(3), 3u);
  EXPECT_EQ(platform().device.uniformRandom(1), 0u);
}

INSTANTIATE_TEST_SUITE_P(On, Contract,
                         testing::Values(BenchFactory{"Sim", makeSimBench},
                                         BenchFactory{"Linux", makeLinuxBench}),
                         [](const auto& made) { return made.param.name; });

}  // namespace
}  // namespace quorveld::contract
