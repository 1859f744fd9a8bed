#include "kelvane/capture/wait_time.h"

#include <linux/futex.h>
#include <sys/syscall.h>

#include <algorithm>
#include <ctime>

#include "kelvane/capture/other_memory.h"

namespace kelvane {
namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;
/// What lies further off may be anything but a time.
constexpr int64_t kLongestSeconds = int64_t{10} * 365 * 86'400;

int64_t nsOf(const timespec& time) {
  const bool isTime =
      time.tv_sec >= 0 && time.tv_sec < kLongestSeconds && time.tv_nsec >= 0 && time.tv_nsec < kNsPerSecond;
  return isTime ? time.tv_sec * kNsPerSecond + time.tv_nsec : 0;
}

uint64_t lengthAt(const WaitParty& party, uint64_t address) {
  timespec time{};
  if (address == 0 || readOther(party.pid, address, &time, sizeof time) != sizeof time) return 0;
  return static_cast<uint64_t>(nsOf(time));
}

uint64_t untilAt(const WaitParty& party, uint64_t address, clockid_t clock) {
  timespec until{};
  timespec now{};
  if (address == 0 || readOther(party.pid, address, &until, sizeof until) != sizeof until ||
      clock_gettime(clock, &now) != 0)
    return 0;
  const bool isTime = until.tv_sec >= 0 && until.tv_sec - now.tv_sec < kLongestSeconds &&
                      until.tv_nsec >= 0 && until.tv_nsec < kNsPerSecond;
  if (!isTime) return 0;
  const int64_t left = (until.tv_sec - now.tv_sec) * kNsPerSecond + until.tv_nsec - now.tv_nsec;
  return static_cast<uint64_t>(std::max<int64_t>(left, 0));
}

uint64_t leftAtFutex(const WaitParty& party, const SystemCall& call) {
  const auto operation = static_cast<uint32_t>(call.arguments[1]);
  const uint64_t time = call.arguments[3];
  const clockid_t clock = (operation & FUTEX_CLOCK_REALTIME) != 0 ? CLOCK_REALTIME : CLOCK_MONOTONIC;
  switch (operation & FUTEX_CMD_MASK) {
    case FUTEX_WAIT:
      return lengthAt(party, time);
    case FUTEX_WAIT_BITSET:
    case FUTEX_LOCK_PI2:
      return untilAt(party, time, clock);
    case FUTEX_LOCK_PI:
      return untilAt(party, time, CLOCK_REALTIME);
    default:
      return 0;
  }
}

}  // namespace

bool onlySleeps(const SystemCall& call) {
  switch (call.number) {
    case SYS_nanosleep:
    case SYS_clock_nanosleep:
      return true;
#ifdef SYS_poll
    case SYS_poll:
      return call.arguments[1] == 0;
    case SYS_select:
#endif
    case SYS_pselect6:
      return call.arguments[0] == 0;
    case SYS_ppoll:
      return call.arguments[1] == 0;
    default:
      return false;
  }
}

uint64_t timeLeftNs(const WaitParty& party) {
  const SystemCall call = party.facts.syscall.value_or(SystemCall{});
  switch (call.number) {
    case SYS_futex:
      return leftAtFutex(party, call);
    case SYS_nanosleep:
      return lengthAt(party, call.arguments[0]);
    case SYS_clock_nanosleep:
      return (call.arguments[1] & TIMER_ABSTIME) != 0
                 ? untilAt(party, call.arguments[2], static_cast<clockid_t>(call.arguments[0]))
                 : lengthAt(party, call.arguments[2]);
#ifdef SYS_poll
    case SYS_poll:
      return static_cast<uint64_t>(std::max(static_cast<int32_t>(call.arguments[2]), 0)) * 1'000'000;
    case SYS_select: {
      timeval time{};
      if (readOther(party.pid, call.arguments[4], &time, sizeof time) != sizeof time) return 0;
      if (time.tv_usec < 0 || time.tv_usec >= 1'000'000) return 0;
      return static_cast<uint64_t>(nsOf({time.tv_sec, time.tv_usec * 1'000}));
    }
#endif
    case SYS_pselect6:
      return lengthAt(party, call.arguments[4]);
    case SYS_ppoll:
      return lengthAt(party, call.arguments[2]);
    default:
      return 0;
  }
}

}  // namespace kelvane
