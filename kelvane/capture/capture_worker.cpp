#include "kelvane/capture/capture_worker.h"

#include <signal.h>

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace kelvane {
namespace {

std::atomic<bool> workerAlive{false};

/// Blocks every signal for the threads started in its scope: the daemon's handlers don't run on them.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

}  // namespace

struct CaptureWorker::Shared {
  std::mutex mutex;
  std::condition_variable changed;
  ProcessCapture capture;
  bool finished = false;
  bool abandoned = false;

  bool publish(const std::function<void(ProcessCapture&)>& edit) {
    std::lock_guard lock(mutex);
    if (!abandoned) edit(capture);
    return !abandoned;
  }

  void run(const CaptureTarget& target) {
    std::string failure;
    try {
      captureProcess(target, [this](const auto& edit) { return publish(edit); });
    } catch (const std::exception& error) {
      failure = error.what();
    }
    std::lock_guard lock(mutex);
    if (!failure.empty() && !abandoned)
      capture.omissions.push_back({"process", "the capture failed: " + failure});
    finished = true;
    // Before the waiting side hears of it: its next capture may follow at once.
    workerAlive = false;
    changed.notify_all();
  }
};

CaptureWorker::CaptureWorker(const CaptureTarget& target) : shared_(std::make_shared<Shared>()) {
  shared_->capture.pid = target.pid;
  shared_->finished = true;
  if (workerAlive.exchange(true)) {
    shared_->capture.omissions.push_back({"process", "an earlier capture is still held up in the kernel"});
    return;
  }
  AllSignalsBlocked blocked;
  try {
    shared_->finished = false;
    std::thread([shared = shared_, target] { shared->run(target); }).detach();
  } catch (const std::system_error& error) {
    workerAlive = false;
    shared_->finished = true;
    shared_->capture.omissions.push_back(
        {"process", std::string("no thread to capture on: ") + error.what()});
  }
}

CaptureWorker::~CaptureWorker() {
  std::lock_guard lock(shared_->mutex);
  shared_->abandoned = true;
}

ProcessCapture CaptureWorker::take(const Deadline& deadline) {
  std::unique_lock lock(shared_->mutex);
  bool finished = shared_->changed.wait_until(lock, deadline.at(), [this] { return shared_->finished; });
  shared_->abandoned = true;
  if (!finished) {
    shared_->capture.omissions.push_back(
        {"process", "the kernel held up the capture; this is what was found by then"});
  }
  return std::move(shared_->capture);
}

}  // namespace kelvane
