#include <time.h>

#include "client/include/quorvel.h"

enum { kTicksPerSecond = 24000000, kMsPerSecond = 1000 };
/* From 1970 to 2001-01-01 00:00:00 UTC, in seconds. */
static const int64_t kReferenceDate = 978307200;

/* ns * 3 / 125, which is exact for whole seconds. CLOCK_MONOTONIC can't fail, and comes from the vDSO. */
uint64_t qv_ticks(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t ticks = (uint64_t)now.tv_sec * kTicksPerSecond + (uint64_t)now.tv_nsec * 3 / 125;
  return ticks | (ticks == 0);
}

uint64_t qv_wall_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (uint64_t)(now.tv_sec - kReferenceDate) * kMsPerSecond + (uint64_t)now.tv_nsec / 1000000;
}
