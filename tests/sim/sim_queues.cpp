#include "tests/sim/sim_queues.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace quorveld::sim {

using platform::Task;
using platform::TimerSchedule;
using platform::WallTime;
using std::chrono::nanoseconds;

/// A repeating timer as its lane knows it. A firing that is already on its way carries the generation of its
/// schedule, so that neither a cancelled timer fires nor a re-armed one early.
struct Repeating {
  TimerSchedule schedule;
  Task task;
  nanoseconds next{};  ///< without lateness
  uint64_t generation = 0;
};

struct Deadline {
  nanoseconds due;  ///< uptime, or the wall clock's reading
  bool onWallClock = false;
  uint64_t order = 0;
  Task task;
  std::weak_ptr<Repeating> repeating;  ///< instead of `task`
  uint64_t generation = 0;
  bool repeats = false;
};

struct Lane {
  std::string label;
  std::deque<Task> ready;
  std::vector<Deadline> deadlines;
  std::optional<int> exitStatus;
  Task onStatusRequest;
  Task onReloadRequest;
};

class SimTimer final : public platform::Timer {
 public:
  SimTimer(SimQueues& queues, std::shared_ptr<Lane> lane, Task task)
      : queues_(queues), lane_(std::move(lane)), repeating_(std::make_shared<Repeating>()) {
    repeating_->task = std::move(task);
  }

  void rearm(const TimerSchedule& schedule) override {
    repeating_->schedule = schedule;
    repeating_->next = queues_.clock_.uptime + schedule.start;
    ++repeating_->generation;
    lane_->deadlines.push_back({.due = repeating_->next + queues_.lateness(schedule),
                                .order = queues_.nextOrder_++,
                                .task = {},
                                .repeating = repeating_,
                                .generation = repeating_->generation,
                                .repeats = true});
  }

 private:
  SimQueues& queues_;
  std::shared_ptr<Lane> lane_;
  std::shared_ptr<Repeating> repeating_;
};

template <typename Base>
class SimQueue : public Base {
 public:
  SimQueue(SimQueues& queues, std::shared_ptr<Lane> lane) : queues_(queues), lane_(std::move(lane)) {}
  ~SimQueue() override {
    // What waits may hold the queue's owner: it must go now, and outside the lane.
    const auto ready = std::exchange(lane_->ready, {});
    const auto deadlines = std::exchange(lane_->deadlines, {});
    std::erase(queues_.lanes_, lane_);
  }

  std::string_view label() const override { return lane_->label; }
  void async(Task task) override { lane_->ready.push_back(std::move(task)); }
  void after(nanoseconds delay, Task task) override {
    post(queues_.clock_.uptime + delay, false, std::move(task));
  }
  void atWallTime(WallTime deadline, Task task) override {
    post(deadline.time_since_epoch(), true, std::move(task));
  }
  std::unique_ptr<platform::Timer> repeat(const TimerSchedule& schedule, Task task) override {
    auto timer = std::make_unique<SimTimer>(queues_, lane_, std::move(task));
    timer->rearm(schedule);
    return timer;
  }
  /// Outside every task the test is the main thread.
  bool isCurrent() const override {
    return queues_.running_ == lane_.get() || (!queues_.running_ && queues_.main_ == lane_);
  }

 protected:
  void post(nanoseconds due, bool onWallClock, Task task) {
    lane_->deadlines.push_back({.due = due,
                                .onWallClock = onWallClock,
                                .order = queues_.nextOrder_++,
                                .task = std::move(task),
                                .repeating = {}});
  }

  SimQueues& queues_;
  std::shared_ptr<Lane> lane_;
};

class SimMainQueue final : public SimQueue<platform::MainQueue> {
 public:
  using SimQueue::SimQueue;
  int run() override { return queues_.serve(*lane_); }
  void quit(int status) override { lane_->exitStatus = status; }
  void onStatusRequest(Task task) override { lane_->onStatusRequest = std::move(task); }
  void onReloadRequest(Task task) override { lane_->onReloadRequest = std::move(task); }
};

SimQueues::~SimQueues() = default;

std::shared_ptr<Lane> SimQueues::addLane(std::string_view label, platform::QoSClass qos) {
  made_.push_back({std::string(label), qos});
  lanes_.push_back(std::make_shared<Lane>());
  lanes_.back()->label = label;
  return lanes_.back();
}

std::unique_ptr<platform::MainQueue> SimQueues::createMain(std::string_view label, platform::QoSClass qos) {
  main_ = addLane(label, qos);
  return std::make_unique<SimMainQueue>(*this, main_);
}

std::unique_ptr<platform::WorkQueue> SimQueues::create(std::string_view label, platform::QoSClass qos) {
  return std::make_unique<SimQueue<platform::WorkQueue>>(*this, addLane(label, qos));
}

nanoseconds SimQueues::lateness(const TimerSchedule& schedule) {
  if (!lateTimers || schedule.leeway.count() <= 0) return nanoseconds(0);
  return nanoseconds(std::uniform_int_distribution<int64_t>(0, schedule.leeway.count())(random_));
}

std::optional<nanoseconds> SimQueues::nextDue() const {
  std::optional<nanoseconds> next;
  for (const auto& lane : lanes_) {
    if (lane->exitStatus) continue;
    for (const Deadline& deadline : lane->deadlines) {
      const auto due =
          deadline.onWallClock ? deadline.due - clock_.bootedAt.time_since_epoch() : deadline.due;
      if (!next || due < *next) next = due;
    }
  }
  return next;
}

void SimQueues::collectDue() {
  for (const auto& lane : lanes_) {
    auto isDue = [this](const Deadline& deadline) {
      return deadline.due <= (deadline.onWallClock ? clock_.wallTime().time_since_epoch() : clock_.uptime);
    };
    const auto border = std::stable_partition(lane->deadlines.begin(), lane->deadlines.end(),
                                              [&](const Deadline& deadline) { return !isDue(deadline); });
    std::vector<Deadline> due(std::make_move_iterator(border),
                              std::make_move_iterator(lane->deadlines.end()));
    lane->deadlines.erase(border, lane->deadlines.end());
    std::stable_sort(due.begin(), due.end(), [](const Deadline& a, const Deadline& b) {
      return std::pair(a.due, a.order) < std::pair(b.due, b.order);
    });
    for (Deadline& deadline : due) {
      if (!deadline.repeats) {
        lane->ready.push_back(std::move(deadline.task));
        continue;
      }
      const auto repeating = deadline.repeating.lock();
      if (!repeating || repeating->generation != deadline.generation) continue;
      lane->ready.push_back([weak = deadline.repeating, generation = deadline.generation] {
        const auto timer = weak.lock();
        if (timer && timer->generation == generation) timer->task();
      });
      repeating->next += repeating->schedule.period;
      deadline.due = repeating->next + lateness(repeating->schedule);
      deadline.order = nextOrder_++;
      lane->deadlines.push_back(std::move(deadline));
    }
  }
}

bool SimQueues::runOne() {
  std::vector<std::shared_ptr<Lane>> able;
  for (const auto& lane : lanes_) {
    if (!lane->ready.empty() && !lane->exitStatus) able.push_back(lane);
  }
  if (able.empty()) return false;
  const auto& lane = able[able.size() == 1 ? 0 : random_() % able.size()];
  const Task task = std::move(lane->ready.front());
  lane->ready.pop_front();
  const Lane* outer = std::exchange(running_, lane.get());
  task();
  running_ = outer;
  return true;
}

void SimQueues::settle() {
  constexpr int kEndless = 1'000'000;
  collectDue();
  for (int tasks = 0; runOne(); ++tasks) {
    collectDue();
    if (tasks < kEndless) continue;
    std::fputs("sim: a million tasks ran and no time passed: one makes the next\n", stderr);
    std::abort();
  }
}

void SimQueues::advance(nanoseconds time) {
  const nanoseconds target = clock_.uptime + time;
  settle();
  for (auto due = nextDue(); due && *due <= target; due = nextDue()) {
    clock_.uptime = std::max(clock_.uptime, *due);
    settle();
  }
  clock_.uptime = std::max(clock_.uptime, target);
}

int SimQueues::serve(const Lane& main) {
  while (!main.exitStatus) {
    collectDue();
    if (runOne()) continue;
    const auto due = nextDue();
    if (!due) {
      std::fputs("sim: the main queue would sleep for ever\n", stderr);
      std::abort();
    }
    clock_.uptime = std::max(clock_.uptime, *due);
  }
  return *main.exitStatus;
}

void SimQueues::requestStatus() {
  if (main_ && main_->onStatusRequest) main_->ready.push_back(main_->onStatusRequest);
}

void SimQueues::requestReload() {
  if (main_ && main_->onReloadRequest) main_->ready.push_back(main_->onReloadRequest);
}

std::optional<int> SimQueues::exitStatus() const {
  return main_ ? main_->exitStatus : std::nullopt;
}

}  // namespace quorveld::sim
