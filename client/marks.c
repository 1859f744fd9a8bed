/* Marking operations in the shared region.
 *
 * Who may write a slot is settled in its `reserved` word, which the daemon doesn't read: 0 is free, and a
 * thread takes the slot by a compare-and-swap from 0 to (thread id << 32 | turn). Turns count up from the
 * tick count at the thread's first, so that a later thread with the same id doesn't repeat them. The holder
 * alone writes the other fields. A thread tries the slot first that it used last, so threads don't meet on a
 * cache line, and no slot's fields share one with another's.
 *
 * What the daemon does meanwhile, without any lock:
 *   D0 reads the clock;  D1 reads timeoutExempt (seq_cst) and goes on if it is 0;  D2 reads startTime and
 * goes on if it is too old at D0;  D3 copies hangName, threadID and wantsKelvane (acquire);  D4 turns
 * startTime from what it read at D2 into all ones, by a compare-and-swap, and reports what it copied if that
 * succeeds.
 *
 * The slot may be ended and used again between any two of these. The order of the stores here upholds:
 *   1. A begin writes timeoutExempt last, by a release store. So whoever reads 0 at D1 reads at D2 the start
 * of that operation or of a later one, never an older one: no operation looks older than it is. A later one
 * read the clock when it held the slot, after D1 and so after D0: it can't be too old, and a field that it
 * has not written yet can't be copied at D3.
 *   2. A begin writes startTime first; every other field is a release store after it. So while startTime
 * reads S at D2 and at D4, each field read in between is that of the operation that began at S, whole. Had
 * the slot been used again, D4 would find another start (an operation old enough to be reported began at
 *      another tick than one that begins now), report nothing and leave the new start alone.
 *   3. An end sets timeoutExempt and touches no other field of the daemon's.
 * Both sides depend on this: a new operation can neither lose its start to a late mark nor lend its name or
 * thread to an old one. */
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include "client/clock.h"
#include "client/include/quorvel.h"
#include "client/region.h"

enum { kNameWords = QV_HANG_NAME_BYTES / sizeof(uint64_t) };
typedef uint64_t __attribute__((may_alias)) name_word;

/* What a thread remembers; valid for one page, so that a forked child, whose thread has another id, starts
 * afresh. */
struct thread_state {
  const struct qv_process_page* page;
  uint32_t thread_id;
  uint32_t last_slot;
  uint32_t next_turn;
};

static _Thread_local struct thread_state this_thread __attribute__((tls_model("initial-exec")));
static pthread_once_t exit_key_once = PTHREAD_ONCE_INIT;
static pthread_key_t exit_key;
static bool have_exit_key;
static uint64_t untracked;

static void free_slot(hangEvent* event) {
  __atomic_store_n(&event->timeoutExempt, 1, __ATOMIC_RELEASE);
  __atomic_store_n(&event->reserved, 0, __ATOMIC_RELEASE);
}

/* At a thread's end: gives back all that it holds. */
static void give_back(void* page) {
  QVSharedHangRegion* region = ((const struct qv_process_page*)page)->region;
  if (!region) return;
  for (unsigned i = 0; i < QV_HANG_SLOT_COUNT; ++i) {
    const uint64_t owner = __atomic_load_n(&region->slots[i].reserved, __ATOMIC_RELAXED);
    if (owner >> 32 == this_thread.thread_id) free_slot(&region->slots[i]);
  }
  this_thread.page = NULL;
}

static void make_exit_key(void) {
  have_exit_key = pthread_key_create(&exit_key, give_back) == 0;
}

static void enter_thread(const struct qv_process_page* page) {
  pthread_once(&exit_key_once, make_exit_key);
  if (have_exit_key) pthread_setspecific(exit_key, page);
  this_thread.page = page;
  this_thread.thread_id = (uint32_t)gettid();
  this_thread.last_slot = this_thread.thread_id % QV_HANG_SLOT_COUNT;
  this_thread.next_turn = (uint32_t)qv_ticks_now();
}

/* Takes a free slot; the word that says so, or 0 when there is none. The slot is this_thread.last_slot. */
static uint64_t take_slot(const struct qv_process_page* page, QVSharedHangRegion* region) {
  if (this_thread.page != page) enter_thread(page);
  uint32_t index = this_thread.last_slot;
  const uint64_t owner = (uint64_t)this_thread.thread_id << 32 | this_thread.next_turn;
  for (unsigned tried = 0; tried < QV_HANG_SLOT_COUNT; ++tried) {
    uint64_t* word = &region->slots[index].reserved;
    uint64_t unowned = 0;
    if (__atomic_load_n(word, __ATOMIC_RELAXED) == 0 &&
        __atomic_compare_exchange_n(word, &unowned, owner, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
      this_thread.last_slot = index;
      ++this_thread.next_turn;
      return owner;
    }
    index = index + 1 == QV_HANG_SLOT_COUNT ? 0 : index + 1;
  }
  __atomic_fetch_add(&untracked, 1, __ATOMIC_RELAXED);
  return 0;
}

/* Whole words, so that a reader never meets half a store, and always all of them: the rest reads as NULs. */
static void write_identity(hangEvent* event, const char* name) {
  uint64_t words[kNameWords] = {0};
  if (name) memcpy(words, name, strnlen(name, QV_HANG_NAME_BYTES - 1));
  name_word* out = (name_word*)event->hangName;
  for (unsigned i = 0; i < kNameWords; ++i) __atomic_store_n(&out[i], words[i], __ATOMIC_RELEASE);
  __atomic_store_n(&event->threadID, (uint64_t)this_thread.thread_id, __ATOMIC_RELEASE);
}

qv_slot* qv_slot_claim(const char* name) {
  const struct qv_process_page* page = qv_page();
  QVSharedHangRegion* region = page->region;
  if (!region) return NULL;
  if (!take_slot(page, region)) return NULL;
  hangEvent* event = &region->slots[this_thread.last_slot];
  __atomic_store_n(&event->startTime, qv_ticks_now(), __ATOMIC_RELAXED);
  write_identity(event, name);
  qv_slot* slot = (qv_slot*)&page->slots[this_thread.last_slot];
  slot->depth = 0;
  return slot;
}

void qv_slot_release(qv_slot* slot) {
  if (slot && slot->event) free_slot(slot->event);
}

void qv_slot_begin(qv_slot* slot, bool wants_kelvane) {
  hangEvent* event = slot ? slot->event : NULL;
  if (!event) return;
  __atomic_store_n(&event->startTime, qv_ticks_now(), __ATOMIC_RELAXED);
  __atomic_store_n(&event->wantsKelvane, wants_kelvane, __ATOMIC_RELEASE);
  __atomic_store_n(&event->timeoutExempt, 0, __ATOMIC_RELEASE);
}

void qv_slot_end(qv_slot* slot) {
  hangEvent* event = slot ? slot->event : NULL;
  if (event) __atomic_store_n(&event->timeoutExempt, 1, __ATOMIC_RELEASE);
}

void qv_turn_begin(qv_slot* slot, bool wants_kelvane) {
  if (!slot || !slot->event) return;
  ++slot->depth;
  qv_slot_begin(slot, wants_kelvane);
}

void qv_turn_end(qv_slot* slot) {
  if (!slot || !slot->event) return;
  if (slot->depth > 0) --slot->depth;
  if (slot->depth == 0) {
    qv_slot_end(slot);
  } else {
    qv_slot_begin(slot, __atomic_load_n(&slot->event->wantsKelvane, __ATOMIC_RELAXED));
  }
}

qv_operation qv_begin(const char* name, bool wants_kelvane) {
  qv_operation operation = {0, 0};
  const struct qv_process_page* page = qv_page();
  QVSharedHangRegion* region = page->region;
  if (!region) return operation;
  operation.owner = take_slot(page, region);
  if (!operation.owner) return operation;
  operation.slot = this_thread.last_slot;
  hangEvent* event = &region->slots[operation.slot];
  __atomic_store_n(&event->startTime, qv_ticks_now(), __ATOMIC_RELAXED);
  write_identity(event, name);
  __atomic_store_n(&event->wantsKelvane, wants_kelvane, __ATOMIC_RELEASE);
  __atomic_store_n(&event->timeoutExempt, 0, __ATOMIC_RELEASE);
  return operation;
}

void qv_end(qv_operation operation) {
  QVSharedHangRegion* region = qv_page()->region;
  if (!region || !operation.owner || operation.slot >= QV_HANG_SLOT_COUNT) return;
  hangEvent* event = &region->slots[operation.slot];
  if (__atomic_load_n(&event->reserved, __ATOMIC_RELAXED) == operation.owner) free_slot(event);
}

uint64_t qv_untracked(void) {
  return __atomic_load_n(&untracked, __ATOMIC_RELAXED);
}
