#include "platform/linux/receiver/confinement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>

namespace quorveld::linux_platform {
namespace {

/// How a confined child ends that does `work`, and then returns from it with what it was refused.
int endOfConfined(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    confineReceiver();
    _exit(work());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

/// Its user may be root, whose processes take each other's signals without any capability.
TEST(Confinement, LeavesNoSignalForOthersAndNoCodeToBeMade) {
  const int status = endOfConfined([] {
    const auto refused = [](long result) { return result < 0 && errno == EPERM; };
    int wrong = 0;
    if (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) wrong |= 1;
    if (!refused(kill(getpid(), 0)) || !refused(tgkill(1, 1, 0))) wrong |= 2;
    if (!refused(fcntl(STDERR_FILENO, F_SETOWN, 1)) || !refused(fcntl(STDERR_FILENO, F_SETSIG, SIGKILL)))
      wrong |= 4;
    constexpr size_t kBytes = 4096;
    void* const memory = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || !refused(mprotect(memory, kBytes, PROT_READ | PROT_EXEC))) wrong |= 8;
    if (fcntl(STDERR_FILENO, F_GET_SEALS) >= 0 || errno != EINVAL) wrong |= 16;
    return wrong;
  });
  if (WIFEXITED(status) && WEXITSTATUS(status) == 15) GTEST_SKIP() << "no system call filters here";
  EXPECT_EQ(status, 0);
  const int aborted = endOfConfined([]() -> int { abort(); });
  EXPECT_TRUE(WIFSIGNALED(aborted) && WTERMSIG(aborted) == SIGABRT) << aborted;
}

}  // namespace
}  // namespace quorveld::linux_platform
