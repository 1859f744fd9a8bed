/* The region that this process shares with the daemon, and the page that leads to it. Library-internal. */
#ifndef QUORVEL_CLIENT_REGION_H
#define QUORVEL_CLIENT_REGION_H

#include "abi/hang_region.h"

struct qv_slot {
  hangEvent* event;
  uint32_t depth; /* of turns; the holder's */
};

/* Everything that a mark goes through to reach the shared region lies in one page that reads as zeros in the
 * child of a fork (MADV_WIPEONFORK), whichever way it was forked: one load tells both that there is no region
 * and that it is the parent's, and a slot handle that the child inherited leads nowhere. The region itself
 * isn't mapped in a child at all (MADV_DONTFORK).
 *
 * Page and region are never unmapped: a thread may be marking at any moment. A child that makes a region of
 * its own makes a page of its own, so inherited handles stay inert. */
struct qv_process_page {
  QVSharedHangRegion* region;
  struct qv_slot slots[QV_HANG_SLOT_COUNT];
};

/* The page in use; a page of zeros before the first qv_region_ensure. Any thread. */
const struct qv_process_page* qv_page(void);

/* Makes the region unless this process has one: sealed against change of size, all slots exempt. Returns the
 * descriptor of its memory, which stays the library's, or a negative errno. Called with the connection's lock
 * held. */
int qv_region_ensure(void);

/* In the child of a fork: closes the parent's memory. */
void qv_region_forget(void);

#endif
