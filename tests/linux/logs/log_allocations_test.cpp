#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/logs/logs.h"

namespace {
std::atomic<long> allocations{0};
}  // namespace

// Counts what the whole program takes from the heap.
[[gnu::noinline]] void* operator new(size_t size) {
  ++allocations;
  if (void* const memory = malloc(size ? size : 1)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  free(memory);
}

namespace quorveld::linux_platform {
namespace {

TEST(LogAllocations, AnOrdinaryLineTakesNone) {
  const UniqueFd saved(dup(STDERR_FILENO));
  const UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(null.get(), STDERR_FILENO);
  LinuxLogs logs;
  logs.handle("com.corvix.quorvel", "app").write(platform::LogLevel::standard, "makes the handle");
  const long before = allocations;
  for (int i = 0; i < 100; ++i) {
    logs.handle("com.corvix.quorvel", "app")
        .write(platform::LogLevel::standard, "viewer is out of credits. Not saving a report!");
  }
  EXPECT_EQ(allocations, before);
  dup2(saved.get(), STDERR_FILENO);
}

}  // namespace
}  // namespace quorveld::linux_platform
