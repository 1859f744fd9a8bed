// A process to make reports of: `victim MODE [COUNT]`. It starts its threads, writes one line with the tid of
// the thread of interest to stdout once each of them does what it is there for, and waits to be killed.
#include <fcntl.h>
#include <linux/futex.h>
#include <linux/userfaultfd.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>

namespace {

std::mutex heldForEver;
std::atomic<int> started{0};
std::atomic<int> tidOfInterest{0};

void enter(const char* name) {
  prctl(PR_SET_NAME, name);
  tidOfInterest = static_cast<int>(syscall(SYS_gettid));
  started++;
}

[[gnu::noinline]] void waitsInRead() {
  int ends[2];
  char byte;
  if (pipe(ends) == 0 && read(ends[0], &byte, 1) > 0) abort();
}

[[gnu::noinline]] void waitsForMutex() {
  std::lock_guard lock(heldForEver);
}

[[gnu::noinline]] void spinsForEver() {
  // Calls nothing, so that the function itself is the innermost frame.
  for (volatile bool on = true; on;) {
  }
}

[[gnu::noinline]] void sleepsForEver() {
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

/// Far more frames than a report keeps.
[[gnu::noinline]] int recurses(int depth) {
  volatile int result = depth > 0 ? recurses(depth - 1) : 0;
  if (depth == 0) sleepsForEver();
  return result + 1;
}

/// The parent of a vfork sleeps uninterruptibly until the child ends.
[[gnu::noinline]] void waitsForVforkChild() {
  // NOLINTNEXTLINE(bugprone-unsafe-functions): that it blocks its parent is what is wanted
  if (vfork() == 0) {
    for (int second = 0; second < 20; second++)
      syscall(SYS_nanosleep, &(const timespec&)(timespec{1, 0}), nullptr);
    _exit(0);
  }
}

enum class Work { sleeps, spins };

/// Waits until the thread that was started after `before` others has come to what it does for ever: it
/// sleeps, or has spent more CPU time than it takes to get there.
void awaitAtWork(int before, Work work) {
  for (;; std::this_thread::sleep_for(std::chrono::microseconds(50))) {
    if (started == before) continue;
    char text[512] = "";
    snprintf(text, sizeof text, "/proc/self/task/%d/stat", tidOfInterest.load());
    int fd = open(text, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || read(fd, text, sizeof text - 1) < 0) abort();
    close(fd);
    char state = 0;
    unsigned long userTicks = 0;  // the 14th field of proc(5)'s stat; the name may hold anything
    sscanf(strrchr(text, ')'), ") %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu", &state, &userTicks);
    if (work == Work::sleeps ? state != 'R' : userTicks > 0) return;
  }
}

template <typename Run>
void start(const char* name, Run run, Work work = Work::sleeps) {
  int before = started;
  std::thread([=] {
    enter(name);
    run();
  }).detach();
  awaitAtWork(before, work);
}

/// A thread whose stack ends where memory begins that nobody provides: who reads it from outside waits for
/// ever.
[[gnu::noinline]] void startBelowUnprovidedMemory() {
  constexpr size_t kStack = 1 << 18;
  constexpr size_t kBeyond = 1 << 16;
  auto* memory = static_cast<char*>(
      mmap(nullptr, kStack + kBeyond, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  uffdio_api api{UFFD_API, 0, 0};
  uffdio_register beyond{
      {reinterpret_cast<uintptr_t>(memory) + kStack, kBeyond}, UFFDIO_REGISTER_MODE_MISSING, 0};
  auto fd = static_cast<int>(syscall(SYS_userfaultfd, O_CLOEXEC));
  if (fd < 0 || ioctl(fd, UFFDIO_API, &api) != 0 || ioctl(fd, UFFDIO_REGISTER, &beyond) != 0) return;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, memory, kStack);
  pthread_t thread;
  auto run = [](void*) -> void* {
    enter("unprovided");
    sleepsForEver();
    return nullptr;
  };
  if (pthread_create(&thread, &attributes, run, nullptr) != 0) return;
  awaitAtWork(0, Work::sleeps);
}

/// Waits for a word in the file, whose page it then lets go of: whoever reads the word makes the file's
/// server read it again.
[[gnu::noinline]] void waitsForWord(uint32_t* word) {
  syscall(SYS_futex, word, FUTEX_WAIT, 0, nullptr);
}

void waitInFile(const char* path) {
  constexpr size_t kPage = 4096;
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  void* page = mmap(nullptr, kPage, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, 0);
  if (fd < 0 || page == MAP_FAILED) abort();
  // The page is there already: the thread sleeps in the futex and not on its way to it, for the server.
  start("frozen", [page] { waitsForWord(static_cast<uint32_t*>(page)); });
  for (unsigned char present = 1; present & 1;) {
    madvise(page, kPage, MADV_DONTNEED);
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    if (mincore(page, kPage, &present) != 0) abort();
  }
}

/// Runs the code in the file, which waits for ever: whoever wants to unwind it opens the file.
void runFile(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  void* file = mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
  if (fd < 0 || file == MAP_FAILED) abort();
  start("frozen", reinterpret_cast<void (*)()>(static_cast<char*>(file) + 64));
}

/// Code that belongs to no file and keeps no frame pointer: it clears that and jumps to itself.
[[gnu::noinline]] void runsCodeMadeAtRunTime() {
#if defined(__x86_64__)
  constexpr unsigned char kForEver[] = {0x31, 0xed, 0xeb, 0xfe};
#elif defined(__aarch64__)
  constexpr unsigned char kForEver[] = {0xfd, 0x03, 0x1f, 0xaa, 0, 0, 0, 0x14};
#endif
  void* code =
      mmap(nullptr, sizeof kForEver, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memcpy(code, kForEver, sizeof kForEver);
  __builtin___clear_cache(static_cast<char*>(code), static_cast<char*>(code) + sizeof kForEver);
  reinterpret_cast<void (*)()>(code)();
}

/// Of its own CPU time, so that others on the machine take nothing from it.
[[gnu::noinline]] void crunches(std::chrono::milliseconds cpuTime) {
  const auto spent = [] {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  };
  for (const auto end = spent() + cpuTime; spent() < end;) {
    for (int i = 0; i < 1'000'000; i++) asm volatile("");
  }
}

[[gnu::noinline]] void waitsItsTurn() {
  std::this_thread::sleep_for(std::chrono::milliseconds(43));
}

[[noreturn]] void worksInTurns() {
  for (;;) {
    crunches(std::chrono::milliseconds(57));
    waitsItsTurn();
  }
}

/// Threads that come and go, and the process with them after `ms`.
[[noreturn]] void churn(int ms) {
  std::thread([ms] {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    _exit(3);
  }).detach();
  for (;;) std::thread([] { std::this_thread::sleep_for(std::chrono::microseconds(300)); }).detach();
}

}  // namespace

int main(int argc, char** argv) {
  std::string_view mode = argc > 1 ? argv[1] : "";
  int count = argc > 2 ? atoi(argv[2]) : 0;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  heldForEver.lock();
  for (int i = 0; mode == "sleepers" && i < count; i++) start("sleeper", sleepsForEver);
  if (mode == "kinds") {
    start("sleeper", sleepsForEver);
    start("spinner", spinsForEver, Work::spins);
    start("mu\"tex\xff", waitsForMutex);
  }
  if (mode == "waits-in-file") waitInFile(argv[2]);
  if (mode == "runs-file") runFile(argv[2]);
  if (mode == "unprovided") startBelowUnprovidedMemory();
  if (mode == "deep") start("deep", [] { recurses(1000); });
  if (mode == "vfork") start("vforker", waitsForVforkChild);
  if (mode == "kinds") start("reader", waitsInRead);
  if (mode == "mutex") start("mutex", waitsForMutex);
  if (mode == "jit") start("jit", runsCodeMadeAtRunTime, Work::spins);
  if (mode == "turns") start("worker", worksInTurns, Work::spins);
  if (mode == "churn") {
    printf("%d\n", getpid());
    fflush(stdout);
    churn(count);
  }
  printf("%d\n", started > 0 ? tidOfInterest.load() : getpid());
  fflush(stdout);
  sleepsForEver();
}
