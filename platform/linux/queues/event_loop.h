#pragma once

#include <systemd/sd-event.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/linux/base/unique_fd.h"
#include "platform/work_queue.h"

namespace quorveld::linux_platform {

/// Whose turn it is when several things are ready on one loop; the smaller number goes first.
inline constexpr int64_t kSignalPriority = SD_EVENT_PRIORITY_IMPORTANT;
/// Posted tasks, deadlines and repeating timers.
inline constexpr int64_t kTaskPriority = SD_EVENT_PRIORITY_NORMAL;
/// Whatever a client can make ready: a flood of it never holds up the timers.
inline constexpr int64_t kClientPriority = SD_EVENT_PRIORITY_NORMAL + 10;

struct UnrefEvent {
  void operator()(sd_event* event) const { sd_event_unref(event); }
};
struct UnrefSource {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using EventHandle = std::unique_ptr<sd_event, UnrefEvent>;
/// Owns an event source: destroying it stops its handler for good. On the loop's thread.
using EventSource = std::unique_ptr<sd_event_source, UnrefSource>;

/// Tasks with a deadline on one clock, and the sd-event time source that is armed for the earliest of them.
/// Loop's thread only. Tasks run in the order of their deadlines, equal ones in the order in which they were
/// posted: sd-event itself promises no order among sources that fall due together.
class Deadlines {
 public:
  struct Entry {
    int64_t dueNs;
    uint64_t order;
    platform::Task task;
  };

  explicit Deadlines(clockid_t clock) : clock_(clock) {}

  /// `fired(source, time, context)` is called when something has become due.
  void attach(sd_event* event, sd_event_time_handler_t fired, void* context);
  void add(Entry entry);
  /// Runs what is due now, up to the moment when `stopped` turns true; then arms the source for what is left.
  void run(const bool& stopped);

 private:
  void arm();

  clockid_t clock_;
  std::vector<Entry> heap_;
  EventSource source_;
};

/// One serial queue's engine: an sd-event loop, served by one thread, with an inbox for tasks from any
/// thread.
///
/// Invariant: the loop and its sources are touched by the serving thread only, except while no thread serves
/// it yet; other threads reach the inbox and its eventfd alone. The eventfd is written when the inbox stops
/// being empty, not for every task.
class EventLoop {
 public:
  /// `serving` is the thread that will serve the loop; none yet (a default id) when that thread is still to
  /// be started. Aborts when the kernel gives no loop: a daemon without queues is none.
  explicit EventLoop(std::thread::id serving);
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// For those who hang file descriptors of their own on the loop. On the serving thread; whoever adds a
  /// source owns it and drops it there before the queue ends.
  sd_event* event() const { return event_.get(); }

  void post(platform::Task task);
  void postAfter(std::chrono::nanoseconds delay, platform::Task task);
  void postAtWallTime(platform::WallTime deadline, platform::Task task);
  std::unique_ptr<platform::Timer> repeat(const platform::TimerSchedule& schedule, platform::Task task);
  bool isCurrent() const { return serving_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

  /// Serves the loop on the calling thread until `exit`; returns the status given there, or a negative errno.
  int serve();

  /// Ends `serve` after the task at hand; what is pending never runs. On the serving thread.
  void exit(int status);

  /// `exit(0)` from another thread.
  void stop();

 private:
  struct Inbox {
    std::mutex mutex;
    std::vector<Deadlines::Entry> monotonic;
    std::vector<Deadlines::Entry> wall;
    uint64_t nextOrder = 0;
    bool stopRequested = false;
  };

  void put(std::vector<Deadlines::Entry> Inbox::*list, int64_t dueNs, platform::Task task);
  void wake();
  void takeInbox();
  void runDue();
  static int woken(sd_event_source*, int fd, uint32_t, void* self) noexcept;
  static int fired(sd_event_source*, uint64_t, void* self) noexcept;

  EventHandle event_;
  UniqueFd wakeFd_;
  EventSource wakeSource_;
  Inbox inbox_;
  Deadlines monotonic_{CLOCK_MONOTONIC};
  Deadlines wall_{CLOCK_REALTIME};
  // Empty between two calls of takeInbox, which keeps their memory.
  std::vector<Deadlines::Entry> takenMonotonic_;
  std::vector<Deadlines::Entry> takenWall_;
  bool exiting_ = false;
  std::atomic<std::thread::id> serving_;
};

/// The loop behind a queue that this platform made (aborts for any other queue).
EventLoop& loopOf(platform::WorkQueue& queue);

}  // namespace quorveld::linux_platform
