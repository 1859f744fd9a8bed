#include "kelvane/verdict/syscall_names.h"

#include <sys/syscall.h>

namespace kelvane {

#define KELVANE_NAME(name) \
  case SYS_##name:         \
    return #name;

const char* syscallName(int64_t number) {
  switch (number) {
    // Newer architectures lack the calls that others have replaced, older headers lack the newest.
    KELVANE_NAME(read)
    KELVANE_NAME(write)
    KELVANE_NAME(readv)
    KELVANE_NAME(writev)
    KELVANE_NAME(pread64)
    KELVANE_NAME(pwrite64)
    KELVANE_NAME(preadv)
    KELVANE_NAME(pwritev)
    KELVANE_NAME(openat)
    KELVANE_NAME(close)
    KELVANE_NAME(fstat)
#ifdef SYS_newfstatat
    KELVANE_NAME(newfstatat)
#endif
    KELVANE_NAME(statx)
    KELVANE_NAME(fsync)
    KELVANE_NAME(fdatasync)
#ifdef SYS_sync_file_range
    KELVANE_NAME(sync_file_range)
#endif
    KELVANE_NAME(sync)
    KELVANE_NAME(syncfs)
    KELVANE_NAME(msync)
    KELVANE_NAME(madvise)
    KELVANE_NAME(mmap)
    KELVANE_NAME(munmap)
    KELVANE_NAME(mprotect)
    KELVANE_NAME(ioctl)
#ifdef SYS_poll
    KELVANE_NAME(poll)
#endif
    KELVANE_NAME(ppoll)
#ifdef SYS_select
    KELVANE_NAME(select)
#endif
    KELVANE_NAME(pselect6)
#ifdef SYS_epoll_wait
    KELVANE_NAME(epoll_wait)
#endif
    KELVANE_NAME(epoll_pwait)
#ifdef SYS_epoll_pwait2
    KELVANE_NAME(epoll_pwait2)
#endif
    KELVANE_NAME(futex)
#ifdef SYS_futex_waitv
    KELVANE_NAME(futex_waitv)
#endif
    KELVANE_NAME(nanosleep)
    KELVANE_NAME(clock_nanosleep)
#ifdef SYS_pause
    KELVANE_NAME(pause)
#endif
    KELVANE_NAME(restart_syscall)
    KELVANE_NAME(rt_sigsuspend)
    KELVANE_NAME(rt_sigtimedwait)
    KELVANE_NAME(wait4)
    KELVANE_NAME(waitid)
    KELVANE_NAME(accept)
    KELVANE_NAME(accept4)
    KELVANE_NAME(connect)
    KELVANE_NAME(recvfrom)
    KELVANE_NAME(recvmsg)
    KELVANE_NAME(recvmmsg)
    KELVANE_NAME(sendto)
    KELVANE_NAME(sendmsg)
    KELVANE_NAME(sendmmsg)
    KELVANE_NAME(sendfile)
    KELVANE_NAME(splice)
    KELVANE_NAME(copy_file_range)
    KELVANE_NAME(flock)
    KELVANE_NAME(fcntl)
    KELVANE_NAME(getdents64)
    KELVANE_NAME(unlinkat)
    KELVANE_NAME(renameat2)
    KELVANE_NAME(ftruncate)
    KELVANE_NAME(fallocate)
    KELVANE_NAME(semop)
    KELVANE_NAME(semtimedop)
    KELVANE_NAME(msgrcv)
    KELVANE_NAME(msgsnd)
    KELVANE_NAME(mq_timedreceive)
    KELVANE_NAME(mq_timedsend)
    KELVANE_NAME(io_getevents)
    KELVANE_NAME(io_uring_enter)
    KELVANE_NAME(clone)
#ifdef SYS_clone3
    KELVANE_NAME(clone3)
#endif
#ifdef SYS_vfork
    KELVANE_NAME(vfork)
#endif
    KELVANE_NAME(execve)
    KELVANE_NAME(exit)
    KELVANE_NAME(exit_group)
    KELVANE_NAME(sched_yield)
    KELVANE_NAME(membarrier)
    KELVANE_NAME(mount)
    KELVANE_NAME(umount2)
    KELVANE_NAME(finit_module)
    KELVANE_NAME(process_vm_readv)
    default:
      return nullptr;
  }
}

#undef KELVANE_NAME

}  // namespace kelvane
