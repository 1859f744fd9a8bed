#include "kelvane/sandbox/system_call_filter.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <vector>

namespace kelvane {
namespace {

#if defined(__x86_64__)
constexpr unsigned kMachine = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kMachine = AUDIT_ARCH_AARCH64;
#else
constexpr unsigned kMachine = 0;
#endif

/// Of memory the allocator's calls, of which those that could make code runnable are looked at once more.
constexpr std::array kMemory = {SYS_mmap, SYS_mprotect};
constexpr std::array kAllowed = {
    SYS_munmap,       SYS_mremap,         SYS_brk,           SYS_madvise,
    SYS_futex,        SYS_read,           SYS_pread64,       SYS_sendmsg,
    SYS_recvmsg,      SYS_close,          SYS_clock_gettime, SYS_getpid,
    SYS_gettid,       SYS_sched_yield,    SYS_getrandom,     SYS_rt_sigreturn,
    SYS_rt_sigaction, SYS_rt_sigprocmask, SYS_sigaltstack,   SYS_restart_syscall,
    SYS_exit,         SYS_exit_group,
};

}  // namespace

bool filterSystemCalls() {
  if (kMachine == 0) {
    errno = ENOSYS;
    return false;
  }
  const sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  const sock_filter end = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS);
  const sock_filter number = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
  std::vector<sock_filter> steps = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kMachine, 1, 0),
      end,
      number,
  };
  for (const long call : kMemory) {
    // The protection is the third argument of both; its low half holds all bits that there are.
    steps.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 4));
    steps.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])));
    steps.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, PROT_EXEC, 0, 1));
    steps.push_back(end);
    steps.push_back(allow);
  }
  for (const long call : kAllowed) {
    steps.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1));
    steps.push_back(allow);
  }
  steps.push_back(end);
  const sock_fprog program = {static_cast<unsigned short>(steps.size()), steps.data()};
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace kelvane
