/* The tracefs instance that the recorder records into. C11, since libtracefs's header is C alone;
 * recorder.cpp is its one caller. Functions that fail set errno. */
#ifndef QUORVELD_KELVANE_RECORDER_INSTANCE_H
#define QUORVELD_KELVANE_RECORDER_INSTANCE_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct tracefs_instance;

/* Mounts tracefs where it isn't. */
bool recorder_mount_tracefs(void);

/* Makes the instance, or finds it: `is_new` tells. The caller's, until recorder_instance_free; null on
 * failure. */
struct tracefs_instance* recorder_instance_make(const char* name, bool* is_new);
void recorder_instance_free(struct tracefs_instance* instance);

/* Removes it from the system; EBUSY while someone has a file of it open. */
bool recorder_instance_remove(struct tracefs_instance* instance);

/* The instance's folder, for free(3); null on failure. */
char* recorder_instance_path(struct tracefs_instance* instance);

/* Clock, overwriting and the size of each CPU's buffer. The name of what failed, or null. */
const char* recorder_instance_configure(struct tracefs_instance* instance, size_t buffer_kb);

typedef enum {
  RECORDER_EVENT_ON,
  RECORDER_EVENT_ABSENT,
  RECORDER_EVENT_FILTER_REFUSED,
  RECORDER_EVENT_FAILED,
} recorder_event_result;

/* Switches an event on, through `filter` if that isn't null. */
recorder_event_result recorder_instance_enable(struct tracefs_instance* instance, const char* system,
                                               const char* event, const char* filter);

#ifdef __cplusplus
}
#endif

#endif
