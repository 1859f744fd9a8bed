#include "client/clock.h"

#include "client/include/quorvel.h"

enum { kMsPerSecond = 1000, kNsPerMs = 1000000 };
/* From 1970 to 2001-01-01 00:00:00 UTC, in seconds. */
static const int64_t kReferenceDate = 978307200;

uint64_t qv_ticks(void) {
  return qv_ticks_now();
}

uint64_t qv_wall_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (uint64_t)(now.tv_sec - kReferenceDate) * kMsPerSecond + (uint64_t)now.tv_nsec / kNsPerMs;
}
