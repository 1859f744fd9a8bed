/* The memory region that a watched process shares with quorveld: in it the process notes the operations in
 * flight.
 *
 *   offset 0            protocolVersion   4
 *   offset 4            slotCount         how many slots, from the first, the daemon scans
 *   offset 8 + 360 * i  slot i
 *
 *   slot     +0  startTime         ticks when the operation began, written first at begin; all ones once the
 *                                  daemon has reported it
 *            +8  (client's own)
 *           +16  timeoutExempt     not 0: the slot is skipped; written last at begin and first at end
 *           +20  wantsKelvane      not 0: a trace report is wanted when the slot times out
 *           +24  (client's thread handle, client's own)
 *           +32  threadID          the thread that is at it, as gettid(2) says
 *           +40  hangName[64]      NUL-terminated
 *          +104  (client's own)[256]
 *
 * Little-endian. The daemon writes nothing but startTime. C11 and C++20.
 */
#ifndef QUORVELD_ABI_HANG_REGION_H
#define QUORVELD_ABI_HANG_REGION_H

#include <stddef.h>
#include <stdint.h>

enum {
  QV_HANG_PROTOCOL_VERSION = 4,
  QV_HANG_SLOT_COUNT = 20,
  QV_HANG_NAME_BYTES = 64,
  QV_HANG_DETAIL_BYTES = 256,
};

/* What the daemon leaves in startTime once it has reported a slot. */
#define QV_HANG_REPORTED UINT64_MAX

typedef struct hangEvent {
  uint64_t startTime;
  uint64_t reserved;
  int32_t timeoutExempt;
  uint32_t wantsKelvane;
  uint32_t threadHandle;
  uint32_t reserved2;
  uint64_t threadID;
  char hangName[QV_HANG_NAME_BYTES];
  char detail[QV_HANG_DETAIL_BYTES];
} hangEvent;

typedef struct QVSharedHangRegion {
  uint32_t protocolVersion;
  uint32_t slotCount;
  hangEvent slots[QV_HANG_SLOT_COUNT];
} QVSharedHangRegion;

#ifdef __cplusplus
#define QV_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define QV_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#endif
QV_STATIC_ASSERT(offsetof(hangEvent, startTime) == 0);
QV_STATIC_ASSERT(offsetof(hangEvent, timeoutExempt) == 16);
QV_STATIC_ASSERT(offsetof(hangEvent, wantsKelvane) == 20);
QV_STATIC_ASSERT(offsetof(hangEvent, threadHandle) == 24);
QV_STATIC_ASSERT(offsetof(hangEvent, threadID) == 32);
QV_STATIC_ASSERT(offsetof(hangEvent, hangName) == 40);
QV_STATIC_ASSERT(offsetof(hangEvent, detail) == 104);
QV_STATIC_ASSERT(sizeof(hangEvent) == 360);
QV_STATIC_ASSERT(offsetof(QVSharedHangRegion, slotCount) == 4);
QV_STATIC_ASSERT(offsetof(QVSharedHangRegion, slots) == 8);
QV_STATIC_ASSERT(sizeof(QVSharedHangRegion) == 7208);
#undef QV_STATIC_ASSERT

#endif
