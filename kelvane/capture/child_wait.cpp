#include "kelvane/capture/child_wait.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/descriptor_index.h"
#include "kelvane/capture/likely_thread.h"
#include "kelvane/capture/other_memory.h"

namespace kelvane {
namespace {

bool isVfork(const WaitParty& party) {
  if (party.facts.state != 'D') return false;
  const SystemCall& call = *party.facts.syscall;
  switch (call.number) {
#ifdef SYS_vfork
    case SYS_vfork:
      return true;
#endif
    case SYS_clone:
      return (call.arguments[0] & CLONE_VFORK) != 0;
    case SYS_clone3: {
      uint64_t flags = 0;
      return readOther(party.pid, call.arguments[0], &flags, sizeof flags) == sizeof flags &&
             (flags & CLONE_VFORK) != 0;
    }
    default:
      return false;
  }
}

/// The child that is asked for by its id, as the process itself calls it; 0: any.
pid_t idAskedFor(const SystemCall& call) {
  if (call.number == SYS_waitid) {
    return static_cast<int>(call.arguments[0]) == P_PID ? static_cast<pid_t>(call.arguments[1]) : 0;
  }
  const auto id = static_cast<pid_t>(call.arguments[0]);
  return id > 0 ? id : 0;
}

bool isCalled(pid_t child, pid_t id) {
  const std::string path = "/proc/" + std::to_string(child) + "/status";
  const pid_t inner = parseInnerId(readFileAt(AT_FDCWD, path.c_str(), kMaxProcFileBytes).text);
  return inner == 0 ? child == id : inner == id;
}

}  // namespace

std::optional<PartyWait> childWait(const WaitParty& party) {
  if (!party.facts.syscall) return std::nullopt;
  const SystemCall& call = *party.facts.syscall;
  const bool vforked = isVfork(party);
  if (!vforked && call.number != SYS_wait4 && call.number != SYS_waitid) return std::nullopt;
  std::vector<pid_t> children =
      vforked ? childrenOfThread(party.pid, party.facts.tid) : childrenOf(party.pid);
  if (vforked && children.size() > 1) children = {children.back()};  // the newest
  const pid_t id = vforked ? 0 : idAskedFor(call);
  if (id > 0) std::erase_if(children, [&](pid_t child) { return !isCalled(child, id); });
  PartyWait wait{party.facts.tid, WaitKind::child, vforked ? "execute a program or to end" : "end", {}};
  for (const pid_t child : children) {
    const auto thread = likelyThread(child, 0, nullptr);
    if (!thread) continue;
    if (wait.holders.size() == kMaxWaitHolders) break;
    const bool isOne = children.size() == 1;
    wait.holders.push_back({child, thread->tid,
                            !isOne           ? Sureness::guess
                            : thread->isOnly ? Sureness::certain
                                             : Sureness::likely,
                            id > 0 ? "the call asks for it" : "it is a child of the process"});
  }
  return wait;
}

}  // namespace kelvane
