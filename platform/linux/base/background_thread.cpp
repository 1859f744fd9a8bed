#include "platform/linux/base/background_thread.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace quorveld::linux_platform {

struct BackgroundThread::State {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::pair<Work, Done>> jobs;  // the first one is under way
  bool started = false;
  bool ending = false;
  bool ended = false;
};

BackgroundThread::BackgroundThread(const char* name, size_t maxWaiting, std::chrono::milliseconds patience)
    : name_(name), maxWaiting_(maxWaiting), patience_(patience), state_(std::make_shared<State>()) {}

BackgroundThread::~BackgroundThread() {
  std::unique_lock lock(state_->mutex);
  if (!state_->started) return;
  state_->ending = true;
  state_->changed.notify_all();
  state_->changed.wait_for(lock, patience_, [this] { return state_->ended; });
}

size_t BackgroundThread::waiting() const {
  const std::lock_guard lock(state_->mutex);
  return state_->jobs.size();
}

bool BackgroundThread::tryPost(Work work, Done done) {
  const std::lock_guard lock(state_->mutex);
  if (state_->jobs.size() >= maxWaiting_) return false;
  if (!state_->started) {
    try {
      std::thread thread([state = state_] { run(state); });
      pthread_setname_np(thread.native_handle(), name_);
      thread.detach();
    } catch (const std::system_error&) {
      return false;
    }
    state_->started = true;
  }
  state_->jobs.emplace_back(std::move(work), std::move(done));
  state_->changed.notify_all();
  return true;
}

void BackgroundThread::run(const std::shared_ptr<State>& state) {
  std::unique_lock lock(state->mutex);
  for (;;) {
    state->changed.wait(lock, [&] { return !state->jobs.empty() || state->ending; });
    if (state->jobs.empty()) break;
    const auto& [work, done] = state->jobs.front();
    lock.unlock();
    const std::error_code result = work();
    lock.lock();
    // With the lock held: the destructor waits for one that has begun.
    if (!state->ending) done(result);
    std::optional finished(std::move(state->jobs.front()));
    state->jobs.pop_front();
    lock.unlock();
    finished.reset();  // what it held may take its time to go
    lock.lock();
  }
  state->ended = true;
  state->changed.notify_all();
}

}  // namespace quorveld::linux_platform
