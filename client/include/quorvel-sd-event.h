/* An application whose main loop is sd-event(3), watched by quorveld:
 *
 *   sd_event_default(&event);
 *   qv_sd_event_watch(event, "org.example.viewer", "viewer");
 *   return qv_sd_event_loop(event);                          in place of sd_event_loop(3)
 *
 * What handlers do is a turn, named MainThread; waiting is none. Loops of other sd-events that a handler runs
 * the same way nest. Include it in one file of a program. C11 and C++; links libsystemd beside libquorvel.
 */
#ifndef QUORVEL_SD_EVENT_H
#define QUORVEL_SD_EVENT_H

#include <errno.h>
#include <quorvel.h>
#include <sys/epoll.h>
#include <systemd/sd-event.h>

static __thread qv_slot* qv_sd_event_slot;

static inline int qv_sd_event_process(sd_event_source* source, int fd, uint32_t events, void* data) {
  (void)source, (void)fd, (void)events, (void)data;
  qv_process();
  return 0;
}

/* qv_watch, with the connection's descriptor in `event`. Returns what qv_watch does (which is not always a
 * reason to give up), or sd_event_add_io(3)'s error. */
static inline int qv_sd_event_watch(sd_event* event, const char* bundle_id, const char* name) {
  const int watched = qv_watch(bundle_id, name);
  const int fd = qv_fd();
  const int added = fd < 0 ? 0 : sd_event_add_io(event, NULL, fd, EPOLLIN, qv_sd_event_process, NULL);
  return added < 0 ? added : watched;
}

/* sd_event_run(3) without a time limit, its handlers marked. */
static inline int qv_sd_event_run(sd_event* event) {
  if (!qv_sd_event_slot) qv_sd_event_slot = qv_slot_claim("MainThread");
  int result = sd_event_prepare(event);
  if (result == 0) {
    qv_slot_end(qv_sd_event_slot); /* a turn of a loop around this one, too: it waits, and does not hang */
    result = sd_event_wait(event, UINT64_MAX);
  }
  if (result > 0) {
    qv_turn_begin(qv_sd_event_slot, true);
    result = sd_event_dispatch(event);
    qv_turn_end(qv_sd_event_slot);
  }
  return result;
}

/* sd_event_loop(3), its turns marked: returns the exit code, or a negative errno. */
static inline int qv_sd_event_loop(sd_event* event) {
  int result = 0;
  sd_event_ref(event);
  while (result >= 0 && sd_event_get_state(event) != SD_EVENT_FINISHED) result = qv_sd_event_run(event);
  int code = 0;
  if (result >= 0) result = sd_event_get_exit_code(event, &code) < 0 ? 0 : code;
  sd_event_unref(event);
  return result;
}

#endif
