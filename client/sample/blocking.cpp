#include "client/sample/blocking.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <future>
#include <mutex>
#include <thread>

namespace quorvel_sample {
namespace {

using std::chrono::nanoseconds;

[[gnu::noinline]] void blockInSleep(nanoseconds duration) {
  std::this_thread::sleep_for(duration);
}

[[gnu::noinline]] void blockSpinning(nanoseconds duration) {
  const auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end) {
  }
}

[[gnu::noinline]] void blockOnMutex(nanoseconds duration) {
  std::mutex mutex;
  std::promise<void> held;
  std::jthread holder([&] {
    const std::lock_guard lock(mutex);
    held.set_value();
    std::this_thread::sleep_for(duration);
  });
  held.get_future().wait();
  const std::lock_guard lock(mutex);
}

/// The read ends with the end of the file, when the only writer closes its end without having written.
[[gnu::noinline]] void blockInRead(nanoseconds duration) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) < 0) {
    std::perror("quorvel-sample: pipe");
    return;
  }
  std::jthread closer([&] {
    std::this_thread::sleep_for(duration);
    close(ends[1]);
  });
  char byte;
  if (read(ends[0], &byte, 1) < 0) std::perror("quorvel-sample: read");
  closer.join();
  close(ends[0]);
}

struct Way {
  BlockingWay way;
  const char* name;
  const char* description;
  void (*block)(nanoseconds);
};

constexpr std::array<Way, 4> kWays{{
    {BlockingWay::sleep, "sleep", "sleeping", blockInSleep},
    {BlockingWay::spin, "spin", "spinning on the CPU", blockSpinning},
    {BlockingWay::lock, "lock", "waiting for a mutex that another thread holds", blockOnMutex},
    {BlockingWay::pipe, "pipe", "reading from a pipe that nobody writes", blockInRead},
}};

const Way& entry(BlockingWay way) {
  return kWays[static_cast<size_t>(way)];
}

}  // namespace

std::optional<BlockingWay> blockingWay(std::string_view name) {
  for (const Way& way : kWays) {
    if (name == way.name) return way.way;
  }
  return std::nullopt;
}

const char* describe(BlockingWay way) {
  return entry(way).description;
}

void block(BlockingWay way, nanoseconds duration) {
  entry(way).block(duration);
}

}  // namespace quorvel_sample
