/* The tick clock, for use within the library. */
#ifndef QUORVEL_CLIENT_CLOCK_H
#define QUORVEL_CLIENT_CLOCK_H

#include <stdint.h>
#include <time.h>

enum { kTicksPerSecond = 24000000 };

/* ns * 3 / 125, which is exact for whole seconds. CLOCK_MONOTONIC can't fail, and comes from the vDSO. */
static inline uint64_t qv_ticks_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t ticks = (uint64_t)now.tv_sec * kTicksPerSecond + (uint32_t)now.tv_nsec * UINT64_C(3) / 125;
  return ticks | (ticks == 0);
}

#endif
