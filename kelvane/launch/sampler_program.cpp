#include "kelvane/launch/sampler_program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "kelvane/base/packets.h"
#include "kelvane/launch/arguments.h"
#include "kelvane/launch/own_program.h"
#include "kelvane/sampling/sampler.h"

namespace kelvane {
namespace {

/// Clients say themselves how long they have been at it, so no user's take all places.
SamplingOrder orderFor(std::span<const kelvane_pending> pending) {
  SamplingOrder order;
  std::map<uint32_t, size_t> ofUser;
  for (const kelvane_pending& one : pending) {
    if (order.count == order.threads.size()) break;
    const PendingThread thread{one.pid, static_cast<int64_t>(one.thread_id)};
    const auto end = order.threads.begin() + order.count;
    // A process may be launched under several names.
    if (std::find(order.threads.begin(), end, thread) != end) continue;
    if (++ofUser[one.uid] <= kMaxSampledThreadsOfUser) order.threads[order.count++] = thread;
  }
  return order;
}

}  // namespace

std::string SamplerProgram::sample(std::span<const kelvane_pending> pending) {
  if (process_) {
    siginfo_t info{};
    const auto id = static_cast<id_t>(process_.get());
    const int failed = waitid(P_PIDFD, id, &info, WEXITED | WNOHANG | __WALL);
    if (failed != 0 || info.si_pid != 0) {
      const std::string why = refusal();
      process_ = UniqueFd();
      orders_ = UniqueFd();
      isRefused_ = !why.empty();
      if (isRefused_) return why;
    }
  }
  if (isRefused_) return {};
  if (pending.empty()) {
    orders_ = UniqueFd();
    // Now, and not when it comes to hear of it: what nobody is told to watch is not watched.
    if (process_) syscall(SYS_pidfd_send_signal, process_.get(), SIGKILL, nullptr, 0);
    return {};
  }
  if (!process_) start();
  const SamplingOrder order = orderFor(pending);
  if (orders_) sendPacket(orders_.get(), &order, sizeof order, -1);
  return {};
}

void SamplerProgram::start() {
  int ends[2];
  const UniqueFd nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!nowhere || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return;
  UniqueFd own(ends[0]);
  const UniqueFd theirs(ends[1]);
  std::string problem;  // a library that can't start its program says so in each report
  const int none = nowhere.get();
  process_ = startOwnProgram({kSamplerOption}, {theirs.get(), none, none, none, none, none}, problem);
  if (process_) orders_ = std::move(own);
}

std::string SamplerProgram::refusal() const {
  int32_t error = 0;
  if (recv(orders_.get(), &error, sizeof error, MSG_DONTWAIT) != sizeof error) return {};
  return "perf events: " + errorText(error);
}

UniqueFd SamplerProgram::requestSamples(int64_t pid, int64_t threadId) const {
  int ends[2];
  if (!orders_ || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return UniqueFd();
  UniqueFd own(ends[0]);
  const UniqueFd theirs(ends[1]);
  SamplingOrder order;
  order.kind = SamplingOrder::kHandOver;
  order.count = 1;
  order.threads[0] = {pid, threadId};
  if (!sendPacket(orders_.get(), &order, sizeof order, theirs.get())) return UniqueFd();
  return own;
}

}  // namespace kelvane
