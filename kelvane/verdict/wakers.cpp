#include "kelvane/verdict/wakers.h"

#include <sys/syscall.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace kelvane {
namespace {

constexpr size_t kMaxWakersListed = 10;
constexpr uint64_t kNsPerMs = 1'000'000;

/// How much a sleep may differ from the time that was asked for: a busy machine wakes late.
constexpr double kLateShare = 0.25;
constexpr uint64_t kLateNs = 5 * kNsPerMs;

/// The milliseconds that a call waits at most, where it says that in an argument.
std::optional<uint64_t> timeOutNs(const ThreadFacts& facts) {
  if (!facts.syscall) return std::nullopt;
  const SystemCall& call = *facts.syscall;
  uint64_t argument = 0;
  switch (call.number) {
#ifdef SYS_poll
    case SYS_poll:
      argument = call.arguments[2];
      break;
#endif
#ifdef SYS_epoll_wait
    case SYS_epoll_wait:
#endif
    case SYS_epoll_pwait:
      argument = call.arguments[3];
      break;
    default:
      return std::nullopt;
  }
  const auto ms = static_cast<int32_t>(argument);
  if (ms <= 0) return std::nullopt;
  return static_cast<uint64_t>(ms) * kNsPerMs;
}

/// How long the wait that the look saw takes each time; nothing if it has no time-out, or one that the last
/// sleep that ended by one can't have had.
std::optional<uint64_t> timeOutOf(const Evidence& evidence, const PartyWait* wait,
                                  std::span<const StateSpan> spans) {
  if (const auto asked = timeOutNs(evidence.process.threads.front().facts)) return asked;
  if (!wait || wait->timeLeftNs == 0) return std::nullopt;
  const auto last = std::find_if(spans.rbegin(), spans.rend(),
                                 [](const StateSpan& span) { return span.end == SleepEnd::timeOut; });
  if (last == spans.rend()) return std::nullopt;
  const uint64_t sleptNs = last->toNs - last->fromNs;
  return wait->timeLeftNs <= sleptNs ? std::optional(sleptNs) : std::nullopt;
}

/// Whether the look found that the hung thread waits for this one.
bool keepsItWaiting(const ProcessCapture& process, const PartyWait* wait, const NamedThread& thread) {
  return wait && std::any_of(wait->holders.begin(), wait->holders.end(), [&](const WaitHolder& holder) {
           // Of another process any thread may have done it.
           return holder.tid == thread.tid || (holder.pid == thread.pid && holder.pid != process.pid);
         });
}

/// Whether the sleep lasted for what the look's call asks for.
bool tookAsLongAs(const StateSpan& span, uint64_t timeOutNs) {
  const uint64_t sleptNs = span.toNs - span.fromNs;
  const auto late = static_cast<uint64_t>(kLateShare * static_cast<double>(timeOutNs)) + kLateNs;
  return sleptNs + kNsPerMs >= timeOutNs && sleptNs <= timeOutNs + late;
}

}  // namespace

NamedThread namedThread(const Evidence& evidence, int32_t tid) {
  NamedThread thread{tid, {}, 0, {}};
  auto name = evidence.recording.threadNames.find(tid);
  if (name != evidence.recording.threadNames.end()) thread.name = name->second;
  if (evidence.findProcess) evidence.findProcess(thread);
  return thread;
}

Sleeps sleepsOf(const Evidence& evidence, const WaitGraph& waits, std::span<const StateSpan> spans,
                bool stillAsleep) {
  Sleeps sleeps;
  std::map<std::pair<SleepEnd, int32_t>, Waker> byWaker;
  const PartyWait* wait = waitOf(waits, evidence.process.hungThread);
  const auto asked = timeOutOf(evidence, wait, spans);
  for (const StateSpan& span : spans) {
    const uint64_t ns = sharedNs(span.fromNs, span.toNs, evidence.fromNs, evidence.toNs);
    if (span.state != ThreadState::sleeping || ns == 0) continue;
    sleeps.count++;
    sleeps.longestNs = std::max(sleeps.longestNs, ns);
    const bool isLast = &span == &spans.back();
    const bool isTimeOut = span.end == SleepEnd::timeOut;
    const bool isBetweenTries = isTimeOut && wait && wait->isRetried;
    const bool isAsked = isTimeOut && asked && tookAsLongAs(span, *asked);
    if ((isLast && stillAsleep) || isBetweenTries || isAsked) sleeps.likeTheLookNs += ns;
    if (span.end == SleepEnd::open) continue;
    Waker& waker = byWaker[{span.end, span.wokenBy}];
    waker.end = span.end;
    waker.sleptNs += ns;
    waker.sleeps++;
  }
  std::vector<std::pair<int32_t, Waker>> order;
  for (const auto& [key, waker] : byWaker) order.emplace_back(key.second, waker);
  std::sort(order.begin(), order.end(), [](const auto& a, const auto& b) {
    return std::tie(b.second.sleptNs, a.first) < std::tie(a.second.sleptNs, b.first);
  });
  if (order.size() > kMaxWakersListed) order.resize(kMaxWakersListed);
  for (auto& [tid, waker] : order) {
    if (waker.end == SleepEnd::thread) {
      waker.thread = namedThread(evidence, tid);
      if (keepsItWaiting(evidence.process, wait, *waker.thread)) sleeps.likeTheLookNs += waker.sleptNs;
    }
    sleeps.wakers.push_back(std::move(waker));
  }
  return sleeps;
}

}  // namespace kelvane
