#include "client/sample/blocking.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

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

/// Reads a file without a name in large pieces, past the page cache: it is the disk that takes the time.
[[gnu::noinline]] void blockOnDisk(nanoseconds duration) {
  constexpr size_t kPieceBytes = size_t{16} << 20;
  constexpr size_t kAlignment = 4096;
  const char* folder = std::getenv("TMPDIR");
  const int fd = open(folder ? folder : "/var/tmp", O_TMPFILE | O_RDWR | O_DIRECT | O_CLOEXEC, 0600);
  const std::unique_ptr<void, void (*)(void*)> piece(std::aligned_alloc(kAlignment, kPieceBytes), std::free);
  std::memset(piece.get(), 'q', kPieceBytes);
  const auto end = std::chrono::steady_clock::now() + duration;
  ssize_t done = pwrite(fd, piece.get(), kPieceBytes, 0);
  while (done > 0 && std::chrono::steady_clock::now() < end) done = pread(fd, piece.get(), kPieceBytes, 0);
  if (done <= 0) std::perror("quorvel-sample: reading past the page cache");
  if (fd >= 0) close(fd);
}

/// Has work to do, on a CPU that it shares with many processes named "hog" which have more.
[[gnu::noinline]] void blockStarving(nanoseconds duration) {
  constexpr int kHogs = 9;
  cpu_set_t before;
  cpu_set_t one;
  sched_getaffinity(0, sizeof before, &before);
  CPU_ZERO(&one);
  CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
  sched_setaffinity(0, sizeof one, &one);
  std::vector<pid_t> hogs;
  for (int i = 0; i < kHogs; ++i) {
    const pid_t hog = fork();
    if (hog == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      prctl(PR_SET_NAME, "hog");
      blockSpinning(duration + std::chrono::seconds(5));
      _exit(0);
    }
    if (hog > 0) hogs.push_back(hog);
  }
  blockSpinning(duration);
  for (const pid_t hog : hogs) kill(hog, SIGKILL);
  for (const pid_t hog : hogs) waitpid(hog, nullptr, 0);
  sched_setaffinity(0, sizeof before, &before);
}

struct Way {
  BlockingWay way;
  const char* name;
  const char* description;
  void (*block)(nanoseconds);
};

constexpr std::array<Way, 6> kWays{{
    {BlockingWay::sleep, "sleep", "sleeping", blockInSleep},
    {BlockingWay::spin, "spin", "spinning on the CPU", blockSpinning},
    {BlockingWay::lock, "lock", "waiting for a mutex that another thread holds", blockOnMutex},
    {BlockingWay::pipe, "pipe", "reading from a pipe that nobody writes", blockInRead},
    {BlockingWay::disk, "disk", "reading from the disk", blockOnDisk},
    {BlockingWay::starve, "starve", "computing on a CPU that others have taken", blockStarving},
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
