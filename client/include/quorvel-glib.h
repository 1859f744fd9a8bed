/* An application whose main loop is GLib's (GTK, GStreamer, ...), watched by quorveld:
 *
 *   qv_glib_watch(NULL, "org.example.viewer", "viewer");     before g_main_loop_run, g_application_run,
 * gtk_main
 *
 * What the loop does between two waits is a turn, named MainThread; waiting is none, however loops nest.
 * After the last loop, whoever has more to do than to return from main calls qv_glib_unwatch. Include it in
 * one file of a program. C11 and C++; links glib-2.0 beside libquorvel.
 */
#ifndef QUORVEL_GLIB_H
#define QUORVEL_GLIB_H

#include <errno.h>
#include <glib-unix.h>
#include <quorvel.h>

static GPollFunc qv_glib_wait; /* the context's own */
static GSource* qv_glib_source;
static __thread qv_slot* qv_glib_slot;

/* GLib waits nowhere else: what lies between two calls is a turn. */
static inline gint qv_glib_poll(GPollFD* fds, guint count, gint timeout_ms) {
  if (!qv_glib_slot) qv_glib_slot = qv_slot_claim("MainThread");
  qv_slot_end(qv_glib_slot);
  const gint ready = qv_glib_wait(fds, count, timeout_ms);
  qv_slot_begin(qv_glib_slot, true);
  return ready;
}

static inline gboolean qv_glib_process(gint fd, GIOCondition condition, gpointer data) {
  (void)fd, (void)condition, (void)data;
  qv_process();
  return G_SOURCE_CONTINUE;
}

/* qv_watch, with the connection's descriptor and the marks in `context` (NULL: the default one). Returns what
 * qv_watch does, which is not always a reason to give up; -EALREADY for a second context. */
static inline int qv_glib_watch(GMainContext* context, const char* bundle_id, const char* name) {
  if (qv_glib_source) return -EALREADY;
  const int watched = qv_watch(bundle_id, name);
  const int fd = qv_fd();
  if (fd < 0) return watched;
  qv_glib_source = g_unix_fd_source_new(fd, G_IO_IN);
  g_source_set_callback(qv_glib_source, G_SOURCE_FUNC(qv_glib_process), NULL, NULL);
  g_source_attach(qv_glib_source, context);
  qv_glib_wait = g_main_context_get_poll_func(context);
  g_main_context_set_poll_func(context, qv_glib_poll);
  return watched;
}

/* Ends the watch, on the loop's thread. */
static inline void qv_glib_unwatch(void) {
  if (!qv_glib_source) return;
  g_main_context_set_poll_func(g_source_get_context(qv_glib_source), qv_glib_wait);
  g_source_destroy(qv_glib_source);
  g_source_unref(qv_glib_source);
  qv_glib_source = NULL;
  qv_slot_release(qv_glib_slot);
  qv_glib_slot = NULL;
  qv_disconnect();
}

#endif
