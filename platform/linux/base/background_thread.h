#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <system_error>

namespace quorveld::linux_platform {

/// Does what may take the disk or the network long, in order, on a thread of its own that starts with the
/// first job.
///
/// On destruction what was posted is still done, for as long as the patience lasts. What is stuck by then is
/// left behind with its thread, which the process's end ends.
class BackgroundThread {
 public:
  using Work = std::function<std::error_code()>;
  using Done = std::function<void(std::error_code)>;

  BackgroundThread(const char* name, size_t maxWaiting, std::chrono::milliseconds patience);
  ~BackgroundThread();
  BackgroundThread(const BackgroundThread&) = delete;
  BackgroundThread& operator=(const BackgroundThread&) = delete;

  /// Has `work` done, which touches nothing that others do, and then `done` called with its result, on that
  /// thread; not any more once this object's destruction has begun, so `done` may use what outlives this
  /// object. False, and nothing is done, when too much waits or there is no thread to be had. From any
  /// thread.
  [[nodiscard]] bool tryPost(Work work, Done done);

  /// How much was posted and isn't done, and whether that is nothing.
  size_t waiting() const;
  bool isIdle() const { return waiting() == 0; }

 private:
  struct State;
  static void run(const std::shared_ptr<State>& state);

  const char* name_;
  const size_t maxWaiting_;
  const std::chrono::milliseconds patience_;
  const std::shared_ptr<State> state_;  // shared with the thread, which may be left behind
};

}  // namespace quorveld::linux_platform
