/* The trace-capture library's interface. The daemon loads the library at run time and knows nothing else of
 * it.
 *
 * An option is a key, the type of its value, and the value. A library ignores keys that it doesn't know and
 * values of a type that it doesn't expect. The four keys' texts are exported as constants; a caller compares
 * keys by their text. C11 and C++20.
 */
#ifndef QUORVELD_ABI_KELVANE_H
#define QUORVELD_ABI_KELVANE_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define KELVANE_LIBRARY_PATH "/usr/lib/libkelvane" /* without the platform's suffix */
#define KELVANE_ENTRY_POINT "kelvane_dump_output_with_options_sync"
#define KELVANE_SAMPLE_ENTRY_POINT "kelvane_sample_pending"
#define KELVANE_FINDING_ENTRY_POINT "kelvane_last_finding"
#define KELVANE_LAUNCH_ENTRY_POINT "kelvane_name_launch"
#define KELVANE_KEY_REASON_STRING "KSPDumpOptions_ReasonString"
#define KELVANE_KEY_NO_SYMBOLICATE "KSPDumpOptions_NoSymbolicate"
#define KELVANE_KEY_MIN_TIMESTAMP "KSPDumpOptions_MinTimestamp"
#define KELVANE_KEY_MAX_TIMESTAMP "KSPDumpOptions_MaxTimestamp"

typedef enum kelvane_type {
  KELVANE_BOOL = 1,
  KELVANE_UINT64 = 2,
  KELVANE_STRING = 3, /* UTF-8, NUL-terminated, the caller's for the length of the call */
} kelvane_type;

typedef struct kelvane_option {
  const char* key;
  kelvane_type type;
  union {
    bool boolean;
    uint64_t uint64;
    const char* string;
  } value;
} kelvane_option;

typedef struct kelvane_options {
  size_t count;
  const kelvane_option* options;
} kelvane_options;

/* Writes one report into `fd`, from its start, and returns whether it is whole. Synchronous. */
typedef bool (*kelvane_dump_function)(int fd, const kelvane_options* options);

/* An operation that has been pending for a while, or a launch: whose it is, and since when. */
typedef struct kelvane_pending {
  int32_t pid;
  uint32_t uid;         /* who caused it: each user gets a part of what can be afforded at most */
  uint64_t thread_id;   /* as the process calls it; 0: its main thread */
  uint64_t start_ticks; /* of 24 MHz */
} kelvane_pending;

/* Has the threads of these operations sampled, as many as it can afford, the first of them first, until the
 * next call says otherwise; a report of one of them then tells where it was. Optional: a library may lack it.
 * Waits for no other process than the one that it starts, and for that one only until it executes its
 * program. Call it with a count of 0, too, and again after that. Returns why no thread can be sampled on this
 * machine, once, when that has turned out, valid until the next call; else NULL. Called by the thread that
 * dumps. */
typedef const char* (*kelvane_sample_function)(const kelvane_pending* pending, size_t count);

/* A report's verdict in three words. Each text is NUL-terminated, and empty where it isn't known. */
typedef struct kelvane_finding {
  char cause[24];
  char culprit[128]; /* a name that a process gave itself, of any bytes */
  char signature[24];
} kelvane_finding;

/* What the calling thread's last report says, all empty if there was none or it has no verdict. Optional: a
 * library may lack it. */
typedef void (*kelvane_finding_function)(kelvane_finding* finding);

/* The process of a launch. A header of a launch names none. */
typedef struct kelvane_launch {
  int32_t pid;              /* as the caller calls it; whose it is has been checked */
  uint64_t connected_ticks; /* of 24 MHz, when it first connected to the daemon; 0: it is not known to have */
} kelvane_launch;

/* Says whose launch the calling thread's next report is about, if that report's header names no process; it
 * is forgotten with that report. Optional: a library may lack it. */
typedef void (*kelvane_launch_function)(const kelvane_launch* launch);

#ifdef KELVANE_BUILD
__attribute__((visibility("default"))) void kelvane_name_launch(const kelvane_launch* launch);
__attribute__((visibility("default"))) void kelvane_last_finding(kelvane_finding* finding);
__attribute__((visibility("default"))) const char* kelvane_sample_pending(const kelvane_pending* pending,
                                                                          size_t count);
__attribute__((visibility("default"))) bool kelvane_dump_output_with_options_sync(
    int fd, const kelvane_options* options);

/* ReasonString: text. NoSymbolicate: bool. MinTimestamp, MaxTimestamp: unsigned 64-bit, ticks of 24 MHz. */
__attribute__((visibility("default"))) extern const char* const KSPDumpOptions_ReasonString;
__attribute__((visibility("default"))) extern const char* const KSPDumpOptions_NoSymbolicate;
__attribute__((visibility("default"))) extern const char* const KSPDumpOptions_MinTimestamp;
__attribute__((visibility("default"))) extern const char* const KSPDumpOptions_MaxTimestamp;
#endif

#ifdef __cplusplus
}
#endif

#endif
