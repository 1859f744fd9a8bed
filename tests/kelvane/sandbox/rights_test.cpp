#include "kelvane/sandbox/rights.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

constexpr int kNoFilter = 77;

/// How a child of all rights dropped ends that then does `work`: a wait status.
int endOf(const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    if (!dropAllRights().empty()) _exit(kNoFilter);
    work();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

TEST(Rights, WithoutThemMemoryAndOpenDescriptorsAreAllThereIs) {
  const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  const int allowed = endOf([file] {
    std::vector<char> bytes(size_t{8} << 20);
    if (pread(file, bytes.data(), 4096, 0) != 4096) _exit(1);
    close(file);
  });
  if (WIFEXITED(allowed) && WEXITSTATUS(allowed) == kNoFilter) GTEST_SKIP() << "no system call filters here";
  EXPECT_EQ(allowed, 0);

  const std::vector<std::pair<const char*, std::function<void()>>> forbidden = {
      {"open", [] { open("/dev/null", O_RDONLY | O_CLOEXEC); }},
      {"socket", [] { socket(AF_UNIX, SOCK_STREAM, 0); }},
      {"ptrace", [] { ptrace(PTRACE_SEIZE, getppid(), nullptr, nullptr); }},
      {"kill", [] { kill(1, 0); }},
      {"write", [] { [[maybe_unused]] ssize_t n = write(STDERR_FILENO, "", 1); }},
      {"fork", [] { fork(); }},
      {"exec", [] { execl("/bin/true", "true", nullptr); }},
      {"runnable memory",
       [] {
         [[maybe_unused]] void* code =
             mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
       }},
  };
  for (const auto& [name, work] : forbidden) {
    const int status = endOf(work);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS) << name << ": " << status;
  }
  close(file);
}

/// What looking takes and no more, for good.
TEST(Rights, ToLookAreTracingKernelStacksAndReading) {
  const pid_t child = fork();
  if (child == 0) {
    keepRightsToLook();
    limitResources(kMaxCpuTime);
    unsigned long long left = 0;
    std::string word;
    for (std::ifstream status("/proc/self/status"); status >> word;) {
      if (word == "CapPrm:") status >> std::hex >> left;
    }
    unsigned long long allowed = 0;
    for (const int one :
         {CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH, CAP_BPF, CAP_PERFMON, CAP_CHECKPOINT_RESTORE, CAP_SYS_ADMIN})
      allowed |= 1ULL << one;
    rlimit core{}, files{};
    getrlimit(RLIMIT_CORE, &core);
    getrlimit(RLIMIT_NOFILE, &files);
    _exit((left & ~allowed) == 0 && core.rlim_max == 0 && files.rlim_max <= kMaxDescriptors ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST(Rights, AllDescriptorsButTheNamedOnesAreClosed) {
  const pid_t child = fork();
  if (child == 0) {
    const int kept = fcntl(STDERR_FILENO, F_DUPFD, 20);
    const int closed = fcntl(STDERR_FILENO, F_DUPFD, 30);
    const std::array<int, 2> all = {STDERR_FILENO, kept};
    closeAllBut(all);
    const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) >= 0; };
    _exit(isOpen(STDERR_FILENO) && isOpen(kept) && !isOpen(closed) && !isOpen(STDIN_FILENO) ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace kelvane
