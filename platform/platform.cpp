#include "platform/platform.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "platform/work_queue.h"

namespace quorveld::platform {

namespace {

std::atomic<const Platform*> installed{nullptr};

}  // namespace

const Platform& current() {
  const Platform* platform = installed.load(std::memory_order_acquire);
  if (!platform) {
    std::fputs("quorveld: no platform is installed\n", stderr);
    std::abort();
  }
  return *platform;
}

void install(const Platform* platform) {
  installed.store(platform, std::memory_order_release);
}

void WorkQueue::assertCurrent() const {
  if (isCurrent()) return;
  std::fprintf(stderr, "quorveld: called outside the queue %.*s\n", static_cast<int>(label().size()),
               label().data());
  std::abort();
}

}  // namespace quorveld::platform
