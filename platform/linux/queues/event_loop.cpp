#include "platform/linux/queues/event_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

namespace quorveld::linux_platform {

namespace {

using std::chrono::nanoseconds;

/// A repeating timer with a shorter period than this would leave its queue no time for anything else.
constexpr nanoseconds kMinPeriod = std::chrono::milliseconds(1);

int64_t nowNs(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return time.tv_sec * int64_t{1'000'000'000} + time.tv_nsec;
}

int64_t saturatingAdd(int64_t left, int64_t right) {
  int64_t sum = 0;
  if (!__builtin_add_overflow(left, right, &sum)) return sum;
  return right > 0 ? std::numeric_limits<int64_t>::max() : 0;
}

/// sd-event's microseconds, rounded up: nothing runs early.
uint64_t microseconds(int64_t ns) {
  return ns <= 0 ? 0 : (static_cast<uint64_t>(ns) + 999) / 1000;
}

/// sd-event takes 0 as "a quarter of a second is fine".
uint64_t accuracyUs(nanoseconds leeway) {
  return std::max<uint64_t>(1, static_cast<uint64_t>(std::max<int64_t>(leeway.count(), 0)) / 1000);
}

void require(int result, const char* what) {
  if (result >= 0) return;
  std::fprintf(stderr, "quorveld: %s failed: %s\n", what, std::strerror(-result));
  std::abort();
}

bool later(const Deadlines::Entry& left, const Deadlines::Entry& right) {
  return std::pair(left.dueNs, left.order) > std::pair(right.dueNs, right.order);
}

/// What the loop knows of a repeating timer; shared with the task at hand, which may destroy its own timer.
class Repetition : public std::enable_shared_from_this<Repetition> {
 public:
  explicit Repetition(platform::Task task) : task_(std::move(task)) {}

  void start(sd_event* event, const platform::TimerSchedule& schedule) {
    period_ = std::max(schedule.period, kMinPeriod).count();
    dueNs_ = saturatingAdd(nowNs(CLOCK_MONOTONIC), std::max<int64_t>(schedule.start.count(), 0));
    source_.reset();
    if (cancelled_) return;
    sd_event_source* source = nullptr;
    const int result = sd_event_add_time(event, &source, CLOCK_MONOTONIC, microseconds(dueNs_),
                                         accuracyUs(schedule.leeway), fired, this);
    if (result == -ESTALE) return;  // the loop has ended: nothing fires any more
    require(result, "arming a timer");
    source_.reset(source);
    sd_event_source_set_priority(source, kTaskPriority);
  }

  void cancel() {
    cancelled_ = true;
    source_.reset();
  }

 private:
  static int fired(sd_event_source*, uint64_t, void* self) noexcept {
    const std::shared_ptr<Repetition> held = static_cast<Repetition*>(self)->shared_from_this();
    held->scheduleNext();
    held->task_();
    return 0;
  }

  /// Keeps the rhythm; firings that were missed are left out rather than made up for.
  void scheduleNext() {
    const int64_t lateNs = std::max<int64_t>(nowNs(CLOCK_MONOTONIC) - dueNs_, 0);
    dueNs_ = saturatingAdd(dueNs_, saturatingAdd(lateNs - lateNs % period_, period_));
    sd_event_source_set_time(source_.get(), microseconds(dueNs_));
    sd_event_source_set_enabled(source_.get(), SD_EVENT_ONESHOT);
  }

  platform::Task task_;
  EventSource source_;
  int64_t period_ = 0;
  int64_t dueNs_ = 0;
  bool cancelled_ = false;
};

class LoopTimer final : public platform::Timer {
 public:
  LoopTimer(EventLoop& loop, platform::Task task)
      : loop_(loop), repetition_(std::make_shared<Repetition>(std::move(task))) {}
  ~LoopTimer() override { repetition_->cancel(); }

  void rearm(const platform::TimerSchedule& schedule) override {
    if (loop_.isCurrent()) return repetition_->start(loop_.event(), schedule);
    // Made before the queue's first task, by another thread: the loop is its serving thread's to touch.
    loop_.post(
        [&loop = loop_, repetition = repetition_, schedule] { repetition->start(loop.event(), schedule); });
  }

 private:
  EventLoop& loop_;
  std::shared_ptr<Repetition> repetition_;
};

}  // namespace

void Deadlines::attach(sd_event* event, sd_event_time_handler_t fired, void* context) {
  sd_event_source* source = nullptr;
  require(sd_event_add_time(event, &source, clock_, std::numeric_limits<uint64_t>::max(), 1, fired, context),
          "making a timer");
  source_.reset(source);
  sd_event_source_set_priority(source, kTaskPriority);
  sd_event_source_set_enabled(source, SD_EVENT_OFF);
}

void Deadlines::add(Entry entry) {
  heap_.push_back(std::move(entry));
  std::push_heap(heap_.begin(), heap_.end(), later);
}

void Deadlines::run(const bool& stopped) {
  const int64_t now = nowNs(clock_);
  while (!stopped && !heap_.empty() && heap_.front().dueNs <= now) {
    std::pop_heap(heap_.begin(), heap_.end(), later);
    const platform::Task task = std::move(heap_.back().task);
    heap_.pop_back();
    task();
  }
  arm();
}

void Deadlines::arm() {
  if (heap_.empty()) {
    sd_event_source_set_enabled(source_.get(), SD_EVENT_OFF);
    return;
  }
  sd_event_source_set_time(source_.get(), microseconds(heap_.front().dueNs));
  sd_event_source_set_enabled(source_.get(), SD_EVENT_ONESHOT);
}

EventLoop::EventLoop(std::thread::id serving) : serving_(serving) {
  sd_event* event = nullptr;
  require(sd_event_new(&event), "making an event loop");
  event_.reset(event);
  wakeFd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  require(wakeFd_ ? 0 : -errno, "making an event descriptor");
  sd_event_source* source = nullptr;
  require(sd_event_add_io(event, &source, wakeFd_.get(), EPOLLIN, woken, this),
          "watching an event descriptor");
  wakeSource_.reset(source);
  sd_event_source_set_priority(source, kTaskPriority);
  monotonic_.attach(event, fired, this);
  wall_.attach(event, fired, this);
}

EventLoop::~EventLoop() = default;

void EventLoop::post(platform::Task task) {
  put(&Inbox::monotonic, nowNs(CLOCK_MONOTONIC), std::move(task));
}

void EventLoop::postAfter(nanoseconds delay, platform::Task task) {
  const int64_t delayNs = std::max<int64_t>(delay.count(), 0);
  put(&Inbox::monotonic, saturatingAdd(nowNs(CLOCK_MONOTONIC), delayNs), std::move(task));
}

void EventLoop::postAtWallTime(platform::WallTime deadline, platform::Task task) {
  put(&Inbox::wall, deadline.time_since_epoch().count(), std::move(task));
}

std::unique_ptr<platform::Timer> EventLoop::repeat(const platform::TimerSchedule& schedule,
                                                   platform::Task task) {
  auto timer = std::make_unique<LoopTimer>(*this, std::move(task));
  timer->rearm(schedule);
  return timer;
}

void EventLoop::put(std::vector<Deadlines::Entry> Inbox::*list, int64_t dueNs, platform::Task task) {
  bool wasEmpty = false;
  {
    const std::lock_guard lock(inbox_.mutex);
    wasEmpty = inbox_.monotonic.empty() && inbox_.wall.empty();
    (inbox_.*list).push_back({dueNs, inbox_.nextOrder++, std::move(task)});
  }
  if (wasEmpty) wake();
}

void EventLoop::wake() {
  // Fails only when the counter is about to overflow, and then it is readable anyway.
  (void)eventfd_write(wakeFd_.get(), 1);
}

/// Both lists in one step: between two, a task put beside what still waits in the other would wake nobody,
/// and neither would any after it.
void EventLoop::takeInbox() {
  {
    const std::lock_guard lock(inbox_.mutex);
    takenMonotonic_.swap(inbox_.monotonic);
    takenWall_.swap(inbox_.wall);
    if (inbox_.stopRequested) exit(0);
  }
  for (auto [taken, deadlines] : {std::pair(&takenMonotonic_, &monotonic_), std::pair(&takenWall_, &wall_)}) {
    for (Deadlines::Entry& entry : *taken) deadlines->add(std::move(entry));
    taken->clear();
  }
}

void EventLoop::runDue() {
  takeInbox();
  monotonic_.run(exiting_);
  wall_.run(exiting_);
}

int EventLoop::woken(sd_event_source*, int fd, uint32_t, void* self) noexcept {
  // Emptied before the inbox is: a task put after that writes again and is not forgotten.
  eventfd_t count = 0;
  (void)eventfd_read(fd, &count);
  static_cast<EventLoop*>(self)->runDue();
  return 0;
}

int EventLoop::fired(sd_event_source*, uint64_t, void* self) noexcept {
  static_cast<EventLoop*>(self)->runDue();
  return 0;
}

int EventLoop::serve() {
  serving_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  return sd_event_loop(event_.get());
}

void EventLoop::exit(int status) {
  if (exiting_) return;
  exiting_ = true;
  sd_event_exit(event_.get(), status);
}

void EventLoop::stop() {
  {
    const std::lock_guard lock(inbox_.mutex);
    inbox_.stopRequested = true;
  }
  wake();
}

}  // namespace quorveld::linux_platform
