#include "tools/launches/launch_process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quorvelctl {

int becomeCommand(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  const int error = errno;
  std::fprintf(stderr, "quorvelctl: can't run %s: %s\n", arguments[0], std::strerror(error));
  return error == ENOENT ? 127 : 126;
}

LaunchProcess::LaunchProcess(const std::vector<std::string>& command, const sigset_t& signalMask,
                             const std::string& notifyAddress) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  Descriptor opened(ends[0]);
  gate_ = Descriptor(ends[1]);
  pid_ = fork();
  if (pid_ != 0) return;

  gate_.reset();
  char released = 0;
  // Not to end by a signal of the terminal while it waits: its status would be taken for the command's.
  while (read(opened.get(), &released, 1) < 0 && errno == EINTR) {
  }
  if (released == 0) _exit(0);
  setenv("NOTIFY_SOCKET", notifyAddress.c_str(), 1);
  sigprocmask(SIG_SETMASK, &signalMask, nullptr);
  _exit(becomeCommand(command));
}

void LaunchProcess::release() {
  const char released = 1;
  while (write(gate_.get(), &released, 1) < 0 && errno == EINTR) {
  }
  gate_.reset();
}

bool LaunchProcess::hasEnded(int& status) const {
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return false;
  if (info.si_pid != pid_) return false;
  status = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
  return true;
}

void LaunchProcess::reap() {
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace quorvelctl
