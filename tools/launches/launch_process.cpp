#include "tools/launches/launch_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace quorvelctl {

namespace {

/// What the exec functions take: a null after pointers into `texts`.
std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

/// This process's environment with another NOTIFY_SOCKET.
std::vector<std::string> environmentWith(const std::string& notifyAddress) {
  constexpr std::string_view kVariable = "NOTIFY_SOCKET=";
  std::vector<std::string> variables;
  for (char** each = environ; each && *each; ++each) {
    if (!std::string_view(*each).starts_with(kVariable)) variables.emplace_back(*each);
  }
  variables.push_back(std::string(kVariable) + notifyAddress);
  return variables;
}

int become(char* const* arguments, char* const* environment) {
  execvpe(arguments[0], arguments, environment);
  const int error = errno;
  std::fprintf(stderr, "quorvelctl: can't run %s: %s\n", arguments[0], std::strerror(error));
  return error == ENOENT ? 127 : 126;
}

}  // namespace

int becomeCommand(const std::vector<std::string>& command) {
  return become(pointersTo(command).data(), environ);
}

LaunchProcess::LaunchProcess(const std::vector<std::string>& command, const sigset_t& signalMask,
                             const std::string& notifyAddress, const std::function<void(pid_t)>& announce) {
  const std::vector<std::string> variables = environmentWith(notifyAddress);
  const std::vector<char*> arguments = pointersTo(command);
  const std::vector<char*> environment = pointersTo(variables);
  // NOLINTNEXTLINE(bugprone-unsafe-functions): posix_spawn(3) has no place for the announcement.
  const pid_t pid = vfork();
  if (pid == 0) {
    announce(getpid());
    // A signal that has waited ends this process from here on, and as it would have ended the command.
    sigprocmask(SIG_SETMASK, &signalMask, nullptr);
    _exit(become(arguments.data(), environment.data()));
  }
  pid_ = pid;
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
