#include "platform/linux/queues/event_queues.h"

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quorveld::linux_platform {

namespace {

/// How far work of the utility class steps back behind the rest of the system, as nice(2) counts.
constexpr int kUtilityNice = 5;

/// Applies a class to the calling thread: on Linux the nice level is a thread's own (setpriority(2)).
/// Lowering it needs no privilege.
void applyQoS(platform::QoSClass qos) {
  if (qos == platform::QoSClass::utility) (void)setpriority(PRIO_PROCESS, 0, kUtilityNice);
}

/// The part of Base that is the same for every queue.
template <typename Base>
class QueueOnLoop : public Base {
 public:
  QueueOnLoop(std::string_view label, std::thread::id serving) : label_(label), loop_(serving) {}

  std::string_view label() const override { return label_; }
  void async(platform::Task task) override { loop_.post(std::move(task)); }
  void after(std::chrono::nanoseconds delay, platform::Task task) override {
    loop_.postAfter(delay, std::move(task));
  }
  void atWallTime(platform::WallTime deadline, platform::Task task) override {
    loop_.postAtWallTime(deadline, std::move(task));
  }
  std::unique_ptr<platform::Timer> repeat(const platform::TimerSchedule& schedule,
                                          platform::Task task) override {
    return loop_.repeat(schedule, std::move(task));
  }
  bool isCurrent() const override { return loop_.isCurrent(); }
  EventLoop& loop() override { return loop_; }

 protected:
  std::string label_;
  EventLoop loop_;
};

class ThreadQueueBase : public platform::WorkQueue, public EventQueue {};

class ThreadQueue final : public QueueOnLoop<ThreadQueueBase> {
 public:
  ThreadQueue(std::string_view label, platform::QoSClass qos) : QueueOnLoop(label, std::thread::id()) {
    // Signals are the main thread's: a thread inherits the mask of its maker.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    thread_ = std::thread([this, qos] { serve(qos); });
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  }

  ~ThreadQueue() override {
    loop_.stop();
    thread_.join();
  }

 private:
  void serve(platform::QoSClass qos) {
    applyQoS(qos);
    // The kernel keeps 15 characters of a thread's name: the label's last part.
    const std::string name = label_.substr(label_.rfind('.') + 1, 15);
    pthread_setname_np(pthread_self(), name.c_str());
    (void)loop_.serve();
  }

  std::thread thread_;
};

class LinuxMainQueue final : public QueueOnLoop<MainEventQueue> {
 public:
  explicit LinuxMainQueue(std::string_view label) : QueueOnLoop(label, std::this_thread::get_id()) {
    terminate_ = watchSignal(SIGTERM, terminated);
    interrupt_ = watchSignal(SIGINT, terminated);
    status_ = watchSignal(SIGUSR1, statusRequested);
    reload_ = watchSignal(SIGHUP, reloadRequested);
    if (sd_event_set_watchdog(loop_.event(), true) < 0) {
      std::fputs("quorveld: the service manager's watchdog can't be fed\n", stderr);
    }
  }

  int run() override {
    // Said even when the queue has been quit already: systemd takes an exit before READY=1 for a failure.
    sd_notify(false, "READY=1\nSTATUS=Running");
    if (quit_) sd_notify(false, "STOPPING=1\nSTATUS=Stopping");
    running_ = true;
    const int status = loop_.serve();
    running_ = false;
    return status < 0 ? EXIT_FAILURE : status;
  }

  void quit(int status) override {
    if (running_ && !quit_) sd_notify(false, "STOPPING=1\nSTATUS=Stopping");
    quit_ = true;
    loop_.exit(status);
  }

  void onStatusRequest(platform::Task task) override { statusTasks_.push_back(std::move(task)); }
  void onReloadRequest(platform::Task task) override { reloadTasks_.push_back(std::move(task)); }
  void onTermination(platform::Task task) override { terminationTasks_.push_back(std::move(task)); }

 private:
  EventSource watchSignal(int signal, sd_event_signal_handler_t handler) {
    sd_event_source* source = nullptr;
    if (sd_event_add_signal(loop_.event(), &source, signal, handler, this) < 0) {
      std::fprintf(stderr, "quorveld: signal %d can't be watched\n", signal);
      return nullptr;
    }
    sd_event_source_set_priority(source, kSignalPriority);
    return EventSource(source);
  }

  static int terminated(sd_event_source*, const signalfd_siginfo*, void* self) noexcept {
    LinuxMainQueue& queue = *static_cast<LinuxMainQueue*>(self);
    const std::vector<platform::Task> tasks = std::move(queue.terminationTasks_);
    for (const platform::Task& task : tasks) task();
    queue.quit(0);
    return 0;
  }

  static int statusRequested(sd_event_source*, const signalfd_siginfo*, void* self) noexcept {
    for (const platform::Task& task : static_cast<LinuxMainQueue*>(self)->statusTasks_) task();
    return 0;
  }

  static int reloadRequested(sd_event_source*, const signalfd_siginfo*, void* self) noexcept {
    LinuxMainQueue& queue = *static_cast<LinuxMainQueue*>(self);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    sd_notifyf(false, "RELOADING=1\nMONOTONIC_USEC=%lld",
               static_cast<long long>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000);
    for (const platform::Task& task : queue.reloadTasks_) task();
    if (!queue.quit_) sd_notify(false, "READY=1");
    return 0;
  }

  std::vector<platform::Task> statusTasks_;
  std::vector<platform::Task> reloadTasks_;
  std::vector<platform::Task> terminationTasks_;
  EventSource terminate_;
  EventSource interrupt_;
  EventSource status_;
  EventSource reload_;
  bool running_ = false;
  bool quit_ = false;
};

}  // namespace

EventLoop& loopOf(platform::WorkQueue& queue) {
  if (EventQueue* const ours = dynamic_cast<EventQueue*>(&queue)) return ours->loop();
  std::fputs("quorveld: a queue of another platform\n", stderr);
  std::abort();
}

void holdMainSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGUSR1, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

std::unique_ptr<platform::MainQueue> LinuxQueues::createMain(std::string_view label, platform::QoSClass qos) {
  holdMainSignals();
  applyQoS(qos);
  auto queue = std::make_unique<LinuxMainQueue>(label);
  if (mainQueueMade_) mainQueueMade_(*queue);
  return queue;
}

std::unique_ptr<platform::WorkQueue> LinuxQueues::create(std::string_view label, platform::QoSClass qos) {
  return std::make_unique<ThreadQueue>(label, qos);
}

}  // namespace quorveld::linux_platform
