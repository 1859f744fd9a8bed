#include "kelvane/launch/capture_program.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/capture/exit_status.h"
#include "kelvane/report/report_file.h"

namespace kelvane {
namespace {

constexpr const char* kProgram = "quorveld/kelvane-capture";
constexpr int kNotExecuted = 127;

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
  std::array<int, 4> descriptors;  // what become 0, 1, 2 and 3
};

/// In a forked process of a program with threads: nothing here allocates or takes a lock.
[[noreturn]] void execute(const Execution& execution) {
  constexpr int kAside = 10;  // out of the way of those that are still to be moved
  std::array<int, 4> aside{};
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

std::string howItEnded(const siginfo_t& info) {
  if (info.si_code != CLD_EXITED) return std::string("ended by a signal (") + strsignal(info.si_status) + ")";
  switch (info.si_status) {
    case 0:
      return {};
    case kOtherVersion:
      return "of another version than the library";
    case kOutOfMemory:
      return "out of memory";
    case kNotExecuted:
      return "could not be executed";
    default:
      return "ended with status " + std::to_string(info.si_status);
  }
}

}  // namespace

CaptureProgram::CaptureProgram(const std::string& reason, const std::vector<std::string>& options) {
  problem_ = start(programPath(), reason, options);
}

std::string CaptureProgram::start(const std::string& path, const std::string& reason,
                                  const std::vector<std::string>& options) {
  if (access(path.c_str(), X_OK) != 0) return path + ": " + errorText(errno);
  const UniqueFd input(memfd_create("kelvane-reason", MFD_CLOEXEC));
  report_ = UniqueFd(memfd_create("kelvane-report", MFD_CLOEXEC));
  const UniqueFd nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
  int ends[2];
  if (!input || !report_ || !nowhere || pipe2(ends, O_CLOEXEC) != 0) return errorText(errno);
  UniqueFd life(ends[0]);
  const UniqueFd theirLife(ends[1]);
  ReportFile text(input.get());
  text.write(reason);
  if (!text.finish()) return "the reason text can't be handed over";

  std::vector<char*> arguments = {const_cast<char*>(path.c_str())};
  for (const std::string& option : options) arguments.push_back(const_cast<char*>(option.c_str()));
  arguments.push_back(nullptr);
  const char* root = std::getenv("QUORVELD_ROOT");
  std::string rootSetting = std::string("QUORVELD_ROOT=") + (root ? root : "");
  std::array<char*, 2> environment = {root ? rootSetting.data() : nullptr, nullptr};
  process_ = startProcess({path.c_str(),
                           arguments.data(),
                           environment.data(),
                           {input.get(), report_.get(), nowhere.get(), theirLife.get()}});
  if (!process_) return errorText(errno);
  life_ = std::move(life);
  return {};
}

std::string CaptureProgram::await() {
  if (!problem_.empty()) return problem_;
  const Deadline deadline(kReportBudget);
  pollfd ended{process_.get(), POLLIN, 0};
  while (poll(&ended, 1, deadline.leftMs()) <= 0) {
    if (!deadline.passed()) continue;
    syscall(SYS_pidfd_send_signal, process_.get(), SIGKILL, nullptr, 0);
    return "it took longer than " + std::to_string(kReportBudget.count()) + " ms";
  }
  siginfo_t info{};
  const auto id = static_cast<id_t>(process_.get());
  if (waitid(P_PIDFD, id, &info, WEXITED | WNOHANG | __WALL) != 0) return errorText(errno);
  process_ = UniqueFd();
  return howItEnded(info);
}

}  // namespace kelvane
