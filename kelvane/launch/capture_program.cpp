#include "kelvane/launch/capture_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/capture/exit_status.h"
#include "kelvane/launch/own_program.h"
#include "kelvane/report/report_file.h"

namespace kelvane {
namespace {

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

CaptureProgram::CaptureProgram(const std::string& reason, const std::vector<std::string>& options,
                               int samples) {
  problem_ = start(reason, options, samples);
}

std::string CaptureProgram::start(const std::string& reason, const std::vector<std::string>& options,
                                  int samples) {
  const UniqueFd input(memfd_create("kelvane-reason", MFD_CLOEXEC));
  report_ = UniqueFd(memfd_create("kelvane-report", MFD_CLOEXEC));
  finding_ = UniqueFd(memfd_create("kelvane-finding", MFD_CLOEXEC));
  const UniqueFd nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
  int ends[2];
  if (!input || !report_ || !finding_ || !nowhere || pipe2(ends, O_CLOEXEC) != 0) return errorText(errno);
  UniqueFd life(ends[0]);
  const UniqueFd theirLife(ends[1]);
  ReportFile text(input.get());
  text.write(reason);
  if (!text.finish()) return "the reason text can't be handed over";

  static_assert(kLifeDescriptor == 3 && kSamplesDescriptor == 4 && kFindingDescriptor == 5);
  std::string problem;
  process_ = startOwnProgram(options,
                             {input.get(), report_.get(), nowhere.get(), theirLife.get(),
                              samples < 0 ? nowhere.get() : samples, finding_.get()},
                             problem);
  if (process_) life_ = std::move(life);
  return problem;
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
