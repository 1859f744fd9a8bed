#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>

#include "client/include/quorvel.hpp"
#include "tests/client/fake_daemon.h"
#include "tests/patience.h"

namespace {

class Marks : public testing::Test {
 protected:
  void SetUp() override {
    daemon_.start();
    ASSERT_EQ(watchPatiently("org.example.viewer", "viewer"), 0);
    daemon_.await(1);
    region_ = std::make_unique<MappedRegion>(daemon_.memory());
    ASSERT_TRUE(region_->inFlight().empty());
  }

  FakeDaemon daemon_;
  std::unique_ptr<MappedRegion> region_;
};

TEST_F(Marks, AnOperationIsInItsSlotFromBeginToEnd) {
  const uint64_t before = qv_ticks();
  const std::string longName(100, 'x');
  const qv_operation operation = qv_begin(longName.c_str(), true);
  ASSERT_EQ(region_->inFlight().size(), 1u);
  const hangEvent& slot = *region_->inFlight()[0];
  EXPECT_EQ(std::string(slot.hangName), longName.substr(0, 63));
  EXPECT_EQ(slot.threadID, static_cast<uint64_t>(gettid()));
  EXPECT_EQ(slot.wantsKelvane, 1u);
  EXPECT_GE(slot.startTime, before);
  EXPECT_LE(slot.startTime, qv_ticks());

  std::thread([&] { qv_end(operation); }).join();
  EXPECT_TRUE(region_->inFlight().empty());

  const qv_operation next = qv_begin("Next", false);
  qv_end(operation);  // once more, when its slot holds another
  EXPECT_EQ(region_->inFlight().size(), 1u);
  qv_end(next);
}

TEST_F(Marks, AHeldSlotKeepsItsNameAndTakesAStartEachTime) {
  const quorvel::Slot slot("MainThread");
  uint64_t lastStart = 0;
  for (const bool wants : {true, false}) {
    const quorvel::ScopedTurn turn(slot, wants);
    ASSERT_EQ(region_->inFlight().size(), 1u);
    const hangEvent& event = *region_->inFlight()[0];
    EXPECT_STREQ(event.hangName, "MainThread");
    EXPECT_EQ(event.wantsKelvane, wants ? 1u : 0u);
    EXPECT_GT(event.startTime, lastStart);
    lastStart = event.startTime;
  }
  EXPECT_TRUE(region_->inFlight().empty());
}

TEST_F(Marks, AnInnerTurnsEndLeavesTheOuterOneInFlight) {
  const quorvel::Slot slot("MainThread");
  {
    const quorvel::ScopedTurn outer(slot, true);
    const hangEvent& event = *region_->inFlight().at(0);
    const uint64_t outerStart = event.startTime;
    uint64_t innerStart = 0;
    {
      const quorvel::ScopedTurn inner(slot, true);
      innerStart = event.startTime;
      EXPECT_GT(innerStart, outerStart);
      qv_slot_end(slot.get());  // a loop within waits
      EXPECT_TRUE(region_->inFlight().empty());
    }
    ASSERT_EQ(region_->inFlight().size(), 1u);
    EXPECT_GT(event.startTime, innerStart);  // it goes on from here
    EXPECT_EQ(event.wantsKelvane, 1u);
  }
  EXPECT_TRUE(region_->inFlight().empty());
  qv_turn_end(slot.get());  // one too many
  qv_turn_begin(slot.get(), false);
  qv_turn_end(slot.get());
  EXPECT_TRUE(region_->inFlight().empty());
}

TEST_F(Marks, WhatFindsNoSlotIsCountedAndAThreadGivesItsSlotsBack) {
  const uint64_t untracked = qv_untracked();
  std::thread([&] {
    for (int i = 0; i < 10; ++i) qv_slot_begin(qv_slot_claim("Held"), false);
    for (int i = 0; i < 10; ++i) qv_begin("LeftBehind", false);
    EXPECT_EQ(region_->inFlight().size(), 20u);

    const quorvel::ScopedOperation operation("TooMany");
    EXPECT_FALSE(operation.tracked());
    const quorvel::Slot slot("TooMany");
    EXPECT_FALSE(slot);
    const quorvel::ScopedTurn turn(slot);
    EXPECT_EQ(qv_untracked(), untracked + 2);
  }).join();
  EXPECT_TRUE(region_->inFlight().empty());
  std::vector<std::unique_ptr<quorvel::ScopedOperation>> operations;
  for (int i = 0; i < 20; ++i) {
    operations.push_back(std::make_unique<quorvel::ScopedOperation>("Again"));
    EXPECT_TRUE(operations.back()->tracked());
  }
}

/// Marks with all that the parent had, then a region of its own if the child may have one.
int markInChild(qv_slot* slot, qv_operation operation, bool mayWatch) {
  alarm(quorveld::tests::kPatience.count());
  qv_slot_begin(slot, true);
  qv_end(operation);
  if (qv_begin("Child", true).owner != 0) return 1;
  if (!mayWatch) return 0;
  if (watchPatiently("org.example.child", "child") != 0) return 2;
  qv_slot_begin(slot, true);
  qv_end(operation);
  return qv_begin("Child", true).owner != 0 ? 0 : 3;
}

TEST_F(Marks, AForkedChildLeavesTheParentsRegionAlone) {
  const quorvel::Slot slot("Parent");
  const quorvel::ScopedOperation other("Other");
  const qv_operation operation = qv_begin("InFlight", false);
  // The second way of forking goes past the C library and its fork handlers.
  for (const bool byLibrary : {true, false}) {
    // ThreadSanitizer's run-time holds locks of its own across such a clone.
    if (!byLibrary && std::string_view(QV_SANITIZE) == "thread") continue;
    const auto child = static_cast<pid_t>(byLibrary ? fork() : syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
    if (child == 0) _exit(markInChild(slot.get(), operation, byLibrary));
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(region_->inFlight().size(), 2u);
  }
  qv_end(operation);
  EXPECT_EQ(region_->inFlight().size(), 1u);
}

uint64_t ticksNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec)) * 3 / 125;
}

/// One scan of a slot by a daemon with the shortest time-out that tells operations apart: two that begin in
/// one tick look alike, so a start has to be some ticks old. What it would report, or null.
const char* scan(hangEvent& slot, char (&name)[QV_HANG_NAME_BYTES], uint64_t& threadId) {
  const uint64_t now = ticksNow();
  if (__atomic_load_n(&slot.timeoutExempt, __ATOMIC_SEQ_CST) != 0) return nullptr;
  uint64_t start = __atomic_load_n(&slot.startTime, __ATOMIC_RELAXED);
  constexpr uint64_t kTimeoutTicks = 4;
  if (start == QV_HANG_REPORTED || now < start + kTimeoutTicks) return nullptr;
  for (size_t i = 0; i < sizeof name; ++i) name[i] = __atomic_load_n(&slot.hangName[i], __ATOMIC_RELAXED);
  threadId = __atomic_load_n(&slot.threadID, __ATOMIC_RELAXED);
  const bool taken = __atomic_compare_exchange_n(&slot.startTime, &start, QV_HANG_REPORTED, false,
                                                 __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return taken ? name : nullptr;
}

TEST_F(Marks, AScanReportsWholeOperationsHoweverFastSlotsChangeHands) {
  std::array<std::jthread, 4> threads;
  for (std::jthread& thread : threads) {
    thread = std::jthread([](const std::stop_token& stop) {
      // Names that change with each operation, all 63 bytes long, and say whose they are.
      const std::string id = std::to_string(gettid());
      for (int turn = 0; !stop.stop_requested(); ++turn) {
        const std::string name = id + std::string(63 - id.size(), static_cast<char>('a' + turn % 26));
        const quorvel::ScopedOperation operation(name.c_str(), true);
      }
    });
  }
  char name[QV_HANG_NAME_BYTES];
  uint64_t threadId = 0;
  int reported = 0;
  constexpr int kEnough = 10;
  const auto deadline = std::chrono::steady_clock::now() + quorveld::tests::kPatience;
  while (reported < kEnough && std::chrono::steady_clock::now() < deadline) {
    for (size_t i = 0; i < QV_HANG_SLOT_COUNT; ++i) {
      if (!scan(region_->slot(i), name, threadId)) continue;
      ++reported;
      const std::string id = std::to_string(threadId);
      ASSERT_EQ(std::string(name), id + std::string(63 - id.size(), name[62]));
    }
  }
  EXPECT_GE(reported, kEnough);
}

}  // namespace
