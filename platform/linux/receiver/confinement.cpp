#include "platform/linux/receiver/confinement.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace quorveld::linux_platform {

namespace {

#if defined(__x86_64__)
constexpr uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
constexpr uint32_t kArchitecture = 0;
#endif

/// A system call, and what the low half of one of its arguments has to be.
struct Allowed {
  enum class Argument : uint8_t { any, equals, hasNoneOf };

  long call;
  Argument how = Argument::any;
  unsigned index = 0;
  uint32_t value = 0;
};

/// Its work; then what memory allocation, an abort and a sanitizer's report take. It is root by its user and
/// so might send signals to all that root runs, by tgkill(2) as well as by fcntl(2).
std::vector<Allowed> allowedCalls() {
  using enum Allowed::Argument;
  return {{SYS_recvmsg},
          {SYS_sendmsg},
          {SYS_sendto},
          {SYS_epoll_ctl},
          {SYS_epoll_pwait},
          {SYS_timerfd_settime},
          {SYS_fcntl, equals, 1, F_GET_SEALS},
          {SYS_fcntl, equals, 1, F_ADD_SEALS},
          {SYS_close},
          {SYS_fstat},
#ifdef SYS_newfstatat
          {SYS_newfstatat},
#endif
          {SYS_clock_gettime},
#ifdef SYS_epoll_wait
          {SYS_epoll_wait},
#endif
          {SYS_mmap, hasNoneOf, 2, PROT_EXEC},
          {SYS_munmap},
          {SYS_mremap},
          {SYS_mprotect, hasNoneOf, 2, PROT_EXEC},
          {SYS_brk},
          {SYS_madvise},
          {SYS_futex},
          {SYS_write},
          {SYS_getpid},
          {SYS_gettid},
          {SYS_tgkill, equals, 0, static_cast<uint32_t>(getpid())},
          {SYS_exit},
          {SYS_exit_group},
          {SYS_rt_sigreturn},
          {SYS_rt_sigprocmask},
          {SYS_sigaltstack},
          {SYS_restart_syscall},
          {SYS_sched_yield}};
}

constexpr uint32_t placeOf(unsigned argument) {
  const size_t lowHalf = std::endian::native == std::endian::little ? 0 : sizeof(uint32_t);
  return static_cast<uint32_t>(offsetof(seccomp_data, args) + argument * sizeof(uint64_t) + lowHalf);
}

void dropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const std::array<__user_cap_data_struct, 2> none{};
  syscall(SYS_capset, &header, none.data());
}

void filterSystemCalls() {
  if (kArchitecture == 0) return;
  const sock_filter number = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
  const sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      number,
  };
  for (const Allowed& one : allowedCalls()) {
    const bool looksAtArgument = one.how != Allowed::Argument::any;
    const uint8_t past = looksAtArgument ? 4 : 1;
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(one.call), 0, past));
    if (looksAtArgument) {
      filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, placeOf(one.index)));
      filter.push_back(one.how == Allowed::Argument::equals
                           ? sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, one.value, 0, 1)
                           : sock_filter BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, one.value, 1, 0));
    }
    filter.push_back(allow);
    if (looksAtArgument) filter.push_back(number);
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM));
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

}  // namespace

void confineReceiver() {
  // The daemon's end is its end, nobody's signal to the group or the terminal.
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) signal(number, SIG_IGN);
  const rlimit none{0, 0};
  for (const auto limit : {RLIMIT_CORE, RLIMIT_NPROC}) setrlimit(limit, &none);
  prctl(PR_SET_DUMPABLE, 0);
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  dropCapabilities();
  filterSystemCalls();
}

}  // namespace quorveld::linux_platform
