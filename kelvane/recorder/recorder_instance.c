#include "kelvane/recorder/recorder_instance.h"

#include <string.h>
#include <tracefs/tracefs.h>

bool recorder_mount_tracefs(void) {
  return tracefs_tracing_dir() != NULL;
}

struct tracefs_instance* recorder_instance_make(const char* name, bool* is_new) {
  struct tracefs_instance* instance = tracefs_instance_create(name);
  *is_new = instance && tracefs_instance_is_new(instance);
  return instance;
}

void recorder_instance_free(struct tracefs_instance* instance) {
  tracefs_instance_free(instance);
}

bool recorder_instance_remove(struct tracefs_instance* instance) {
  return tracefs_instance_destroy(instance) == 0;
}

char* recorder_instance_path(struct tracefs_instance* instance) {
  char* path = tracefs_instance_get_dir(instance);
  char* copy = path ? strdup(path) : NULL;
  tracefs_put_tracing_file(path);
  return copy;
}

const char* recorder_instance_configure(struct tracefs_instance* instance, size_t buffer_kb) {
  /* CLOCK_MONOTONIC, by which hangs are timed. Setting a clock empties the buffer. */
  if (tracefs_instance_file_write(instance, "trace_clock", "mono") < 0) return "trace_clock";
  if (tracefs_option_enable(instance, TRACEFS_OPTION_OVERWRITE) < 0) return "options/overwrite";
  if (tracefs_instance_set_buffer_size(instance, buffer_kb, -1) < 0) return "buffer_size_kb";
  if (tracefs_trace_on(instance) < 0) return "tracing_on";
  return NULL;
}

recorder_event_result recorder_instance_enable(struct tracefs_instance* instance, const char* system,
                                               const char* event, const char* filter) {
  if (!tracefs_event_file_exists(instance, system, event, "format")) return RECORDER_EVENT_ABSENT;
  if (filter && tracefs_event_file_write(instance, system, event, "filter", filter) < 0) {
    return RECORDER_EVENT_FILTER_REFUSED;
  }
  /* trace_marker's has no switch: it is always on. */
  if (!tracefs_event_file_exists(instance, system, event, "enable")) return RECORDER_EVENT_ON;
  return tracefs_event_enable(instance, system, event) < 0 ? RECORDER_EVENT_FAILED : RECORDER_EVENT_ON;
}
