#include "kelvane/launch/own_program.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

namespace kelvane {
namespace {

constexpr const char* kProgram = "quorveld/kelvane-capture";

std::string programPath() {
  Dl_info own{};
  // Any address of this file's code.
  if (dladdr(reinterpret_cast<const void*>(&programPath), &own) == 0 || !own.dli_fname) return kProgram;
  // It may be a link, to where both were installed.
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(own.dli_fname, nullptr), std::free);
  const std::string library = real ? real.get() : own.dli_fname;
  return library.substr(0, library.rfind('/') + 1) + kProgram;
}

/// Blocks every signal of this thread: between a fork and the execution the host's handlers must not run.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

struct Execution {
  const char* path;
  char* const* arguments;
  char* const* environment;
  ProgramDescriptors descriptors;
};

/// In a forked process of a program with threads: nothing here allocates or takes a lock.
[[noreturn]] void execute(const Execution& execution) {
  constexpr int kAside = 10;  // out of the way of those that are still to be moved
  ProgramDescriptors aside{};
  for (size_t i = 0; i < aside.size(); i++) aside[i] = fcntl(execution.descriptors[i], F_DUPFD, kAside);
  for (size_t i = 0; i < aside.size(); i++) {
    if (aside[i] < 0 || dup2(aside[i], static_cast<int>(i)) < 0) _exit(kNotExecuted);
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // the caller's thread waits for as long as the report is wanted
  if (syscall(SYS_close_range, static_cast<unsigned>(aside.size()), UINT_MAX, 0) != 0 || setsid() < 0 ||
      chdir("/") != 0)
    _exit(kNotExecuted);
  struct sigaction byDefault {};
  byDefault.sa_handler = SIG_DFL;
  for (int number = 1; number <= SIGRTMAX; number++) sigaction(number, &byDefault, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve(execution.path, execution.arguments, execution.environment);
  _exit(kNotExecuted);
}

/// A process that shares nothing with this one and sends no signal when it ends. This thread waits until it
/// executes: before that, it must not be the last one to hold what is this process's.
UniqueFd startProcess(const Execution& execution) {
  const SignalsBlocked blocked;
  int raw = -1;
  const long child = syscall(SYS_clone, CLONE_PIDFD | CLONE_VFORK, nullptr, &raw, nullptr, nullptr);
  if (child == 0) execute(execution);
  return UniqueFd(child < 0 ? -1 : raw);
}

}  // namespace

UniqueFd startOwnProgram(const std::vector<std::string>& options, const ProgramDescriptors& descriptors,
                         std::string& problem) {
  const std::string path = programPath();
  if (access(path.c_str(), X_OK) != 0) {
    problem = path + ": " + errorText(errno);
    return UniqueFd();
  }
  std::vector<char*> arguments = {const_cast<char*>(path.c_str())};
  for (const std::string& option : options) arguments.push_back(const_cast<char*>(option.c_str()));
  arguments.push_back(nullptr);
  const char* root = std::getenv("QUORVELD_ROOT");
  std::string rootSetting = std::string("QUORVELD_ROOT=") + (root ? root : "");
  std::array<char*, 2> environment = {root ? rootSetting.data() : nullptr, nullptr};
  UniqueFd process = startProcess({path.c_str(), arguments.data(), environment.data(), descriptors});
  if (!process) problem = errorText(errno);
  return process;
}

}  // namespace kelvane
