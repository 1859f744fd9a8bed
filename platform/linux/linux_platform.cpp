#include "platform/linux/linux_platform.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/base/runtime_directory.h"
#include "platform/linux/ipc/ipc_limits.h"

namespace quorveld::linux_platform {

namespace {

UniqueFd takeInstanceLock(std::string& error) {
  if (!makeRuntimeDirectory(error)) return {};
  const std::string path = runtimeDirectory() + "/quorveld.lock";
  // For the owner alone: whoever could open it could lock it, and keep the daemon from starting.
  UniqueFd lock(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock) {
    error = path + ": open failed: " + strerrordesc_np(errno);
    return {};
  }
  if (flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
  error = errno == EWOULDBLOCK ? path + ": another quorveld is running on this root"
                               : path + ": flock failed: " + strerrordesc_np(errno);
  return {};
}

/// Whoever starts the daemon may have closed these: the next file to be opened would be standard error, and
/// lines of the log would go into it.
void fillStandardDescriptors() {
  UniqueFd filled;
  do {
    (void)filled.release();
    filled.reset(open("/dev/null", O_RDWR));
  } while (filled && filled.get() <= STDERR_FILENO);
}

void prepareProcess() {
  signal(SIGPIPE, SIG_IGN);  // a client or a log reader that has gone is an error of the write, not our end
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWantedDescriptors) return;
  limit.rlim_cur = std::min<rlim_t>(kWantedDescriptors, limit.rlim_max);
  (void)setrlimit(RLIMIT_NOFILE, &limit);  // up to the hard limit it can't fail
}

}  // namespace

std::unique_ptr<LinuxPlatform> LinuxPlatform::create(std::string& error) {
  fillStandardDescriptors();
  holdMainSignals();  // a reload that is asked for this early waits, rather than ending the process
  UniqueFd lock = takeInstanceLock(error);
  if (!lock) return nullptr;
  prepareProcess();
  return std::unique_ptr<LinuxPlatform>(new LinuxPlatform(std::move(lock)));
}

LinuxPlatform::LinuxPlatform(UniqueFd lock)
    : lock_(std::move(lock)),
      queues_([this](platform::WorkQueue& mainQueue) {
        analytics_.useQueue(mainQueue);
        renderServer_.useQueue(mainQueue);
      }),
      platform_{analytics_,     clock_,        device_,       files_,         hostStatistics_, ipc_,
                kernel_,        kernelMemory_, logs_,         notifications_, powerLog_,       preferences_,
                processTables_, queues_,       renderServer_, traceLibraries_} {}

}  // namespace quorveld::linux_platform
