#include "platform/linux/queues/event_queues.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/patience.h"

namespace quorveld::linux_platform {
namespace {

using namespace std::chrono_literals;

TEST(EventQueues, TasksOfBothClocksWakeTheirQueueWhateverElseWaits) {
  LinuxQueues queues;
  std::atomic<int> ran = 0;
  const auto queue = queues.create("org.example.queue", platform::QoSClass::userInitiated);
  constexpr int kTasks = 100'000;
  const auto pause = [](int spins) {
    for (; spins > 0; --spins) std::atomic_signal_fence(std::memory_order_seq_cst);
  };
  {
    // Out of step with each other, so that tasks come while the queue takes what was there before.
    const std::jthread other([&] {
      for (int i = 0; i < kTasks; ++i, pause(i % 97))
        queue->atWallTime(platform::WallTime(0ns), [&] { ++ran; });
    });
    for (int i = 0; i < kTasks; ++i, pause(i % 89)) queue->async([&] { ++ran; });
  }
  EXPECT_TRUE(tests::eventually([&] { return ran == 2 * kTasks; }))
      << "a task was put and nobody woke up for it: " << ran;
}

}  // namespace
}  // namespace quorveld::linux_platform
