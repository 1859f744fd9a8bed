#include "kelvane/capture/capture_worker.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "kelvane/base/limits.h"
#include "kelvane/capture/exit_status.h"
#include "kelvane/capture/findings.h"
#include "kelvane/capture/sampled_stacks.h"
#include "kelvane/capture/stack_parsing.h"
#include "kelvane/sandbox/rights.h"

namespace kelvane {
namespace {

/// Empty: it did its part.
std::string badEnd(const siginfo_t& info) {
  if (info.si_code != CLD_EXITED) return std::string("ended by a signal (") + strsignal(info.si_status) + ")";
  if (info.si_status == 0) return {};
  return info.si_status == kOutOfMemory ? "out of memory"
                                        : "ended with status " + std::to_string(info.si_status);
}

}  // namespace

CaptureWorker::CaptureWorker(const CaptureTarget& target) : target_(target) {
  capture_.pid = target.pid;
  int ends[2];
  const pid_t self = getpid();
  const bool hasAreas = look_ && std::all_of(parsed_.begin(), parsed_.end(),
                                             [](const FindingsArea& area) { return bool(area); });
  if (hasAreas && pipe2(ends, O_CLOEXEC) == 0) {
    ended_ = UniqueFd(ends[0]);
    const UniqueFd theirs(ends[1]);
    lookPid_ = fork();
    if (lookPid_ == 0) look(self, theirs.get());
    if (lookPid_ > 0) return;
  }
  capture_.omissions.push_back({"process", "no process to look at it with: " + errorText(errno)});
}

void CaptureWorker::look(pid_t parent, int ended) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kOrphaned);
  closeAllBut(std::array{STDERR_FILENO, kLifeDescriptor, kSamplesDescriptor, ended});
  const rlimit nothing{0, 0};
  setrlimit(RLIMIT_FSIZE, &nothing);
  try {
    StackParsing parsing(target_.symbolicate, look_, parsed_, {STDERR_FILENO, kLifeDescriptor, ended});
    const auto look = target_.samplesAlone ? lookAtLaunchSamples : lookAtProcess;
    look(
        target_, [this](const ProcessCapture& part) { look_.publish(part); },
        [&](size_t number, const CopiedProcess& process, const Deadline& deadline) {
          parsing.run(number, process, deadline);
        });
  } catch (const std::bad_alloc&) {
    _exit(kOutOfMemory);
  }
  _exit(0);
}

ProcessCapture CaptureWorker::take(const Deadline& deadline) {
  if (lookPid_ <= 0) return std::move(capture_);
  const bool finished = awaitEnd(deadline);
  collect(finished ? 0 : WNOHANG);
  if (!finished) {
    capture_.omissions.push_back(
        {"process", "the kernel held up the capture; this is what was found by then"});
    end();
  }
  bool isWhole = look_.addTo(capture_);
  const WaitGraph waits = capture_.waits;
  const std::vector<OtherThread> others = capture_.others;
  isWhole = parsed_.front().addTo(capture_) && isWhole;
  capture_.waits = waits;  // whatever parses files leads to nobody
  capture_.others = others;
  takeOthers();
  if (!isWhole) capture_.omissions.push_back({"process", "there is more than a report takes"});
  return std::move(capture_);
}

void CaptureWorker::takeOthers() {
  for (size_t i = 0; i < capture_.others.size() && i < kMaxOtherStacks; i++) {
    ProcessCapture parsed;
    if (!parsed_[1 + i].addTo(parsed))
      capture_.omissions.push_back({"stacks of other processes", "there is more than a report takes"});
    addOther(parsed, capture_.others[i].thread, capture_);
  }
}

void CaptureWorker::end() const {
  for (const pid_t pid : {lookPid_, look_.notedProcess()}) {
    // The number of one that was collected may be another's by now.
    const bool collected = std::find(collected_.begin(), collected_.end(), pid) != collected_.end();
    if (pid > 0 && !collected) kill(pid, SIGKILL);
  }
  if (!awaitEnd(Deadline(kGoingWait))) return;
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

bool CaptureWorker::awaitEnd(const Deadline& deadline) const {
  pollfd end{ended_.get(), POLLIN, 0};
  while (true) {
    if (poll(&end, 1, deadline.leftMs()) > 0) return true;
    if (deadline.passed()) return false;
  }
}

void CaptureWorker::collect(int option) {
  for (siginfo_t info{}; waitid(P_ALL, 0, &info, WEXITED | option) == 0 && info.si_pid != 0; info = {}) {
    collected_.push_back(info.si_pid);
    const std::string why = badEnd(info);
    if (!why.empty()) {
      const bool looked = info.si_pid == lookPid_;
      capture_.omissions.push_back(
          {looked ? "process" : "user stacks",
           (looked ? "what looked at it: " : "what reads the process's files: ") + why});
    }
  }
}

}  // namespace kelvane
