#pragma once

#include <chrono>
#include <fstream>
#include <thread>

namespace quorveld::tests {

/// How long a test waits for what must happen. It says nothing of how fast that should be: a busy machine
/// takes long for anything, and only what never happens takes longer than this.
inline constexpr std::chrono::seconds kPatience{90};

/// Waits for `condition`; false when it hasn't come true in all that time.
template <typename Condition>
bool eventually(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// The time that passes for the thread that makes it and asks it, without the time for which that thread was
/// ready to run and others had the CPU: how long a call takes and blocks, whatever else the machine does.
class OwnTime {
 public:
  std::chrono::milliseconds elapsed() const {
    const auto passed = std::chrono::steady_clock::now() - start_;
    return std::chrono::duration_cast<std::chrono::milliseconds>(passed - (kept() - keptBefore_));
  }

 private:
  /// How long others have kept the thread from a CPU so far; nothing where the kernel doesn't count it.
  static std::chrono::nanoseconds kept() {
    long long ran = 0;
    long long waited = 0;
    std::ifstream("/proc/thread-self/schedstat") >> ran >> waited;
    return std::chrono::nanoseconds(waited);
  }

  std::chrono::nanoseconds keptBefore_ = kept();
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace quorveld::tests
