#include "platform/linux/processes/kernel.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/linux/scratch_root.h"

namespace quorveld::linux_platform {
namespace {

/// A running copy of sleep(1), ended by the destructor.
class Sleeper {
 public:
  explicit Sleeper(const std::string& path) {
    std::filesystem::copy_file("/bin/sleep", path);
    std::string program = path;
    std::string seconds = "60";
    char* arguments[] = {program.data(), seconds.data(), nullptr};
    if (::posix_spawn(&pid, path.c_str(), nullptr, nullptr, arguments, nullptr) != 0) pid = -1;
  }
  ~Sleeper() {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  pid_t pid = -1;
};

TEST(Kernel, NamesTheExecutableEvenAfterItHasBeenDeleted) {
  const ScratchRoot root;
  LinuxKernel kernel;
  const Sleeper plain(root / "plain");
  ASSERT_GT(plain.pid, 0);
  EXPECT_EQ(kernel.executablePath(plain.pid), root / "plain");
  std::filesystem::remove(root / "plain");
  EXPECT_EQ(kernel.executablePath(plain.pid), root / "plain");
}

TEST(Kernel, KnowsNoExecutableOfWhatHasNone) {
  LinuxKernel kernel;
  EXPECT_EQ(kernel.executablePath(0), std::nullopt);
  EXPECT_EQ(kernel.executablePath(-1), std::nullopt);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ::waitid(P_PID, static_cast<id_t>(child), nullptr, WEXITED | WNOWAIT);
  EXPECT_EQ(kernel.executablePath(child), std::nullopt);  // a zombie
  ::waitpid(child, nullptr, 0);
  EXPECT_EQ(kernel.executablePath(child), std::nullopt);
}

}  // namespace
}  // namespace quorveld::linux_platform
