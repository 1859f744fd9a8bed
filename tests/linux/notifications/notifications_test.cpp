#include "platform/linux/notifications/notifications.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <future>
#include <thread>
#include <vector>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/queues/event_queues.h"
#include "tests/linux/scratch_root.h"
#include "tests/patience.h"
#include "tests/sim/sim_platform.h"

namespace quorveld::linux_platform {
namespace {

using platform::QoSClass;

/// Counts deliveries and lets a test wait for the next one.
class Bell {
 public:
  void ring() const { ::eventfd_write(fd_.get(), 1); }
  /// Whether it has rung; what rang together counts once.
  bool rang() const {
    eventfd_t count = 0;
    return ::eventfd_read(fd_.get(), &count) == 0;
  }
  /// Waits for the next time that it rings.
  bool rings(std::chrono::milliseconds patience = tests::kPatience) const {
    pollfd entry{fd_.get(), POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(patience.count())) == 1 && rang();
  }

 private:
  UniqueFd fd_{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

class NotificationFiles : public testing::Test {
 protected:
  /// From this thread: what is posted after it is delivered all the same.
  std::unique_ptr<platform::Subscription> subscribe(const char* name, platform::WorkQueue& queue,
                                                    Bell& bell) {
    return notifications_.subscribe(name, queue, [&bell] { bell.ring(); });
  }
  static void destroyOn(platform::WorkQueue& queue, std::unique_ptr<platform::Subscription> subscription) {
    std::promise<void> done;
    queue.async([&done, held = std::shared_ptr(std::move(subscription))]() mutable {
      held.reset();
      done.set_value();
    });
    done.get_future().wait();
  }
  void post(const std::string& name, const std::string& state) {
    root_.write("run/quorveld/notify/.new", state);
    std::filesystem::rename(root_ / "run/quorveld/notify/.new", root_ / ("run/quorveld/notify/" + name));
  }
  /// Returns when `queue` has delivered all that was posted before.
  void settle(platform::WorkQueue& queue) {
    Bell bell;
    auto marker = subscribe("marker", queue, bell);
    post("marker", "1");
    EXPECT_TRUE(bell.rings());
    destroyOn(queue, std::move(marker));
  }

  sim::SimPlatform sim_;  // for its log
  const ScratchRoot root_;
  LinuxQueues queues_;
  LinuxNotifications notifications_{std::chrono::milliseconds(10)};
};

TEST_F(NotificationFiles, ArePostedToEachQueuesSubscriptionsOfThatName) {
  Bell work;
  Bell output;
  const auto workQueue = queues_.create("work", QoSClass::userInitiated);
  const auto outputQueue = queues_.create("output", QoSClass::utility);
  auto display = subscribe("display", *workQueue, work);
  auto unlock = subscribe("unlock", *outputQueue, output);
  EXPECT_EQ(display->state(), std::nullopt);

  post("display", "18446744073709551615\n");
  EXPECT_TRUE(work.rings());
  EXPECT_EQ(display->state(), 18446744073709551615U);
  post("unlock", "1");
  EXPECT_TRUE(output.rings());
  root_.write("run/quorveld/notify/unlock", "2");  // written in place
  EXPECT_TRUE(output.rings());
  EXPECT_EQ(unlock->state(), 2u);
  post("display2", "1");
  settle(*workQueue);
  EXPECT_FALSE(work.rang());

  destroyOn(*workQueue, std::move(display));
  post("display", "3");
  settle(*workQueue);
  EXPECT_FALSE(work.rang());
  destroyOn(*outputQueue, std::move(unlock));
}

TEST_F(NotificationFiles, HandlerMayDropItsOwnSubscription) {
  Bell bell;
  const auto queue = queues_.create("work", QoSClass::utility);
  auto held = std::make_shared<std::unique_ptr<platform::Subscription>>();
  std::promise<void> subscribed;
  queue->async([&] {
    *held = notifications_.subscribe("once", *queue, [&bell, held] {
      held->reset();
      bell.ring();
    });
    subscribed.set_value();
  });
  subscribed.get_future().wait();
  post("once", "1");
  EXPECT_TRUE(bell.rings());
  post("once", "2");
  settle(*queue);
  EXPECT_FALSE(bell.rang());
}

TEST_F(NotificationFiles, SurviveTheLossOfTheDirectoryAndOfEvents) {
  Bell bell;
  const auto queue = queues_.create("work", QoSClass::utility);
  auto subscription = subscribe("name", *queue, bell);
  std::filesystem::remove_all(root_ / "run/quorveld/notify");
  // The queue makes the directory again and watches it; what is posted before it does is lost.
  EXPECT_TRUE(tests::eventually([&] {
    post("name", "1");
    return bell.rings(std::chrono::milliseconds(20));
  }));

  // More events than the kernel keeps.
  std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
  int kept = 0;
  ASSERT_TRUE(limit >> kept);
  post("a", "1");
  const std::string here = root_ / "run/quorveld/notify/";
  for (int i = 0; i <= kept; ++i)
    std::filesystem::rename(here + (i % 2 == 0 ? "a" : "b"), here + (i % 2 == 0 ? "b" : "a"));
  post("name", "2");
  EXPECT_TRUE(bell.rings());
  destroyOn(*queue, std::move(subscription));
}

TEST_F(NotificationFiles, AreWatchedByOneInstanceWhichIsTriedForAgain) {
  root_.write("run/quorveld/notify", "in the way");
  Bell bell;
  const auto queue = queues_.create("work", QoSClass::utility);
  std::vector<std::unique_ptr<platform::Subscription>> subscriptions;
  for (const char* name : {"a", "b", "c"}) subscriptions.push_back(subscribe(name, *queue, bell));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::filesystem::remove(root_ / "run/quorveld/notify");
  EXPECT_TRUE(tests::eventually([&] {
    if (root_.exists("run/quorveld/notify")) post("c", "3");
    return bell.rings(std::chrono::milliseconds(20));
  }));
  EXPECT_EQ(subscriptions.back()->state(), 3u);
  size_t instances = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    instances += std::filesystem::read_symlink(entry, gone) == "anon_inode:inotify" ? 1 : 0;
  }
  EXPECT_EQ(instances, 1u);
  for (auto& subscription : subscriptions) destroyOn(*queue, std::move(subscription));
}

TEST_F(NotificationFiles, RefuseNamesThatLeaveTheDirectory) {
  Bell bell;
  const auto queue = queues_.create("work", QoSClass::utility);
  root_.write("run/quorveld/state", "1");
  for (const char* name : {"", "../state", ".hidden", "a/b"}) {
    EXPECT_EQ(subscribe(name, *queue, bell)->state(), std::nullopt);
  }
  EXPECT_EQ(sim_.logs.lines.size(), 4u);
  EXPECT_TRUE(isNotificationName(std::string(kMaxNotificationNameBytes, 'n')));
  EXPECT_FALSE(isNotificationName(std::string(kMaxNotificationNameBytes + 1, 'n')));
  EXPECT_FALSE(isNotificationName(std::string_view("a\0b", 3)));
}

TEST(NotificationState, IsOneDecimalNumber) {
  EXPECT_EQ(parseNotificationState("0"), 0u);
  EXPECT_EQ(parseNotificationState("12\n"), 12u);
  for (const char* bad : {"", "\n", "-1", "1 ", "1\n\n", "0x1", "18446744073709551616"}) {
    EXPECT_EQ(parseNotificationState(bad), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace quorveld::linux_platform
