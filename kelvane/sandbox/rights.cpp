#include "kelvane/sandbox/rights.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <string_view>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/sandbox/system_call_filter.h"

namespace kelvane {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kLimitsAddressSpace = false;  // the sanitizers' shadow alone is terabytes
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kLimitsAddressSpace = false;
#else
constexpr bool kLimitsAddressSpace = true;
#endif
#else
constexpr bool kLimitsAddressSpace = true;
#endif

constexpr uint64_t bit(unsigned capability) {
  return uint64_t{1} << capability;
}

/// CAP_CHECKPOINT_RESTORE is for map_files. CAP_SYS_ADMIN stays with whoever has it: what kernel/ can't tell
/// where there is no BPF takes nothing less.
constexpr uint64_t kRightsToLook = bit(CAP_SYS_PTRACE) | bit(CAP_DAC_READ_SEARCH) | bit(CAP_BPF) |
                                   bit(CAP_PERFMON) | bit(CAP_CHECKPOINT_RESTORE) | bit(CAP_SYS_ADMIN);

/// Leaves of this process's capabilities those in `kept`.
bool keepCapabilities(uint64_t kept) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
  if (syscall(SYS_capget, &header, data.data()) != 0) return false;
  for (size_t i = 0; i < data.size(); i++) {
    data[i].permitted &= static_cast<uint32_t>(kept >> (32 * i));
    data[i].effective = data[i].permitted;
    data[i].inheritable = 0;
  }
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  return syscall(SYS_capset, &header, data.data()) == 0;
}

void limit(__rlimit_resource resource, size_t most) {
  rlimit limits{};
  if (getrlimit(resource, &limits) != 0) return;
  limits.rlim_cur = limits.rlim_max = std::min<rlim_t>(limits.rlim_max, most);
  setrlimit(resource, &limits);
}

}  // namespace

void keepRightsToLook() {
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  keepCapabilities(kRightsToLook);
}

void limitResources(std::chrono::seconds cpuTime) {
  if (kLimitsAddressSpace) limit(RLIMIT_AS, kMaxAddressSpaceBytes);
  limit(RLIMIT_CPU, static_cast<size_t>(cpuTime.count()));
  limit(RLIMIT_NOFILE, kMaxDescriptors);
  limit(RLIMIT_CORE, 0);
  constexpr std::string_view kFirstToGo = "1000";
  const UniqueFd score(open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
  if (score) [[maybe_unused]]
    const ssize_t written = write(score.get(), kFirstToGo.data(), kFirstToGo.size());
}

void limitReport() {
  limit(RLIMIT_FSIZE, kMaxReportBytes);  // the caller's may be lower: its file is not written here
}

void closeAllBut(std::span<const int> kept) {
  unsigned from = 0;
  for (const int fd : kept) {
    const auto number = static_cast<unsigned>(fd);
    if (number > from) syscall(SYS_close_range, from, number - 1, 0);
    from = number + 1;
  }
  syscall(SYS_close_range, from, UINT_MAX, 0);
}

std::string dropAllRights() {
  // What this process holds of another is nobody's to read, nor to be dumped.
  if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      !keepCapabilities(0))
    return "rights can't be given up: " + errorText(errno);
  if (!filterSystemCalls()) return "no system call filter can be set: " + errorText(errno);
  return {};
}

}  // namespace kelvane
