#include "kelvane/sampling/sampler.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/packets.h"

namespace kelvane {
namespace {

/// Lets a signal end whatever call this process waits in, now and then, for as long as this lives.
class WaitsEnd {
 public:
  WaitsEnd() {
    struct sigaction ends {};
    ends.sa_handler = [](int) {};
    sigaction(SIGALRM, &ends, nullptr);
    set(kBeginWait);
  }
  WaitsEnd(const WaitsEnd&) = delete;
  WaitsEnd& operator=(const WaitsEnd&) = delete;
  ~WaitsEnd() { set(std::chrono::milliseconds(0)); }

 private:
  static void set(std::chrono::milliseconds each) {
    const timeval time{0, std::chrono::microseconds(each).count()};
    const itimerval timer{time, time};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
};

/// Whether it is this machine's answer, and not that of a moment without memory or descriptors.
bool isRefusal(int error) {
  return error == EPERM || error == EACCES || error == ENOSYS || error == ENOENT || error == EOPNOTSUPP ||
         error == EINVAL;
}

class Sampler {
 public:
  /// False if there is nothing more to do.
  bool follow(const SamplingOrder& order, int socket, UniqueFd passed) {
    const size_t count = std::min<size_t>(order.count, order.threads.size());
    if (order.kind == SamplingOrder::kHandOver) {
      if (count > 0) handOver(order.threads[0], passed.get());
      return true;
    }
    const auto wanted = std::span(order.threads).first(count);
    const auto isWanted = [&](const auto& thread) {
      return std::find(wanted.begin(), wanted.end(), nameOf(*thread)) != wanted.end();
    };
    collect();  // what tells of a program's execution
    std::erase_if(threads_, [&](const auto& thread) { return !isWanted(thread) || !thread->goesOn(); });
    for (const PendingThread& thread : wanted) {
      if (!find(thread) && !begin(thread, socket)) return false;
    }
    return !threads_.empty();
  }

  void collect() {
    for (const auto& thread : threads_) thread->collect();
  }

 private:
  static PendingThread nameOf(const SampledThread& thread) { return {thread.pid(), thread.threadId()}; }

  SampledThread* find(const PendingThread& named) const {
    const auto found = std::find_if(threads_.begin(), threads_.end(),
                                    [&](const auto& thread) { return nameOf(*thread) == named; });
    return found == threads_.end() ? nullptr : found->get();
  }

  /// False if no thread can be sampled: what this process is refused even of itself, no client has to answer
  /// for. The library is told if that will be so the next time, too.
  bool begin(const PendingThread& named, int socket) {
    const WaitsEnd limit;
    int32_t error = 0;
    auto thread = SampledThread::begin(static_cast<pid_t>(named.pid), named.threadId, error);
    if (thread) threads_.push_back(std::move(thread));
    if (!threads_.empty() || SampledThread::begin(getpid(), getpid(), error)) return true;
    if (isRefusal(error)) sendPacket(socket, &error, sizeof error, -1);
    return false;
  }

  void handOver(const PendingThread& named, int to) const {
    SampledThread* thread = find(named);
    if (!thread) return;
    thread->collect();
    const std::string bytes = thread->encoded();
    const UniqueFd memory(memfd_create("kelvane-samples", MFD_CLOEXEC));
    if (!memory || pwrite(memory.get(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
      return;
    const char word = 0;
    sendPacket(to, &word, sizeof word, memory.get());
  }

  std::vector<std::unique_ptr<SampledThread>> threads_;
};

}  // namespace

int runSampler(int socket) {
  Sampler sampler;
  Deadline forgotten(kOrdersWait);
  for (pollfd ready{socket, POLLIN, 0}; !forgotten.passed();) {
    if (poll(&ready, 1, static_cast<int>(kCollectEvery.count())) <= 0) {
      sampler.collect();
      continue;
    }
    SamplingOrder order;
    UniqueFd passed;
    if (receivePacket(socket, &order, sizeof order, passed) != sizeof order) break;
    if (!sampler.follow(order, socket, std::move(passed))) break;
    forgotten = Deadline(kOrdersWait);
  }
  return 0;
}

std::optional<KeptSamples> receiveSamples(int socket) {
  pollfd ready{socket, POLLIN, 0};
  if (poll(&ready, 1, static_cast<int>(kSamplesWait.count())) <= 0) return std::nullopt;
  char word = 0;
  UniqueFd memory;
  if (receivePacket(socket, &word, sizeof word, memory) != sizeof word || !memory) return std::nullopt;
  lseek(memory.get(), 0, SEEK_SET);
  return readKeptSamples(readOn(memory.get(), kMaxSamplesBytes).text);
}

}  // namespace kelvane
