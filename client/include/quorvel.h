/* libquorvel: how an application tells quorveld what it is at, so that its hangs are found, and how a
 * launcher announces activations.
 *
 * A process has one connection and one region of 20 slots that it shares with the daemon. An operation in
 * flight occupies a slot; the daemon looks at the slots now and then and reports an operation that has been
 * there for too long. Marking never enters the kernel and never waits, whether or not there is a daemon.
 *
 *   qv_watch("org.example.viewer", "viewer");        once; qv_fd() and qv_process() go into the main loop
 *   qv_slot* turn = qv_slot_claim("MainThread");     once for each thread that marks often
 *   qv_slot_begin(turn, true);
 *   ...
 *   qv_slot_end(turn);
 *
 * Threads: every function may be called from any thread; what else holds for one is said there. Signal
 * handlers: only qv_slot_begin, qv_slot_end, qv_turn_begin, qv_turn_end, qv_end and qv_ticks.
 * Fork: the child of a fork is not watched, and its marks, with whatever slots and operations it inherited,
 * change nothing in the parent's region; it may call qv_watch for itself. (A child made by clone(2) past the
 * C library may mark, without effect, but call nothing else here.) Failure: functions that return int return
 * 0, or a negative errno(3) value. Texts are UTF-8 of at most QV_TEXT_MAX bytes, else -EINVAL and
 * -ENAMETOOLONG. Times are ticks, 24,000,000 a second of CLOCK_MONOTONIC (qv_ticks), or, for activations,
 * wall-clock milliseconds since 2001-01-01 00:00:00 UTC (qv_wall_ms).
 *
 * Trace reports: for one, each thread of a hung process is stopped for a moment. Where another thread waits
 * in epoll_wait(2), poll(2) or another call that signal(7) lists as never restarted, that call fails with
 * EINTR then, as it does after a SIGSTOP and SIGCONT: a loop that takes every error of its wait for fatal
 * must not take this one so.
 *
 * C11 and C++.
 */
#ifndef QUORVEL_H
#define QUORVEL_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The version of this header, and of what is built with it. */
#define QV_VERSION "0.2.0"

#define QV_EXPORT __attribute__((visibility("default")))

/* The longest text that a message carries, in bytes, the NUL not counted. */
#define QV_TEXT_MAX 1024
/* How many messages wait in this process while the daemon reads none. */
#define QV_MESSAGES_MAX 256

/* ---- connection --------------------------------------------------------------------------------------- */

/* Connects to the daemon at $QUORVELD_ROOT/run/quorveld/com.corvix.quorveld, to send messages and nothing
 * else. Waits for the handshake, for two seconds at the most. A negative result says why there is no daemon
 * now (-ENOENT, -ECONNREFUSED, -ETIMEDOUT, ...); from then on, as after the loss of a connection, qv_process
 * tries again. 0 at once when connected already. */
QV_EXPORT int qv_connect(void);

/* As qv_connect, and has the daemon watch this process's operations, after each later reconnection too. Holds
 * an application's start up for a quarter of a second at the most: -EINPROGRESS when the daemon has not
 * answered by then, and qv_process registers. The region is made first and stays until the process ends, so
 * marks work the same whatever this returns; with no daemon nobody reads them. `bundle_id` names the
 * application in reports, `name` this process in the daemon's log. -EALREADY when watched already, -EINVAL
 * and -ENAMETOOLONG for texts that are no UTF-8 or too long, -ENOBUFS, -ENOMEM and -EMFILE when connected and
 * there is no room for the message: these leave it unwatched; what memfd_create(2), mmap(2) or madvise(2) say
 * when there can be no region: then marks do nothing. */
QV_EXPORT int qv_watch(const char* bundle_id, const char* name);

/* Has the daemon watch this process no longer; the connection stays. Operations in flight are forgotten by
 * the daemon, not here. */
QV_EXPORT int qv_unwatch(void);

/* Closes the connection for good, and with it what the daemon knows of this process. Slots stay valid. */
QV_EXPORT void qv_disconnect(void);

/* A descriptor that polls readable (POLLIN) when qv_process has something to do. It is the same from the
 * first qv_connect or qv_watch until qv_disconnect, across lost daemons; the library's own. -ENOTCONN outside
 * that. */
QV_EXPORT int qv_fd(void);

/* Sends what waits, notices a lost daemon, and reconnects: a second after the loss, then twice as late each
 * time, up to a minute. Never blocks. 0 when there is a connection, -EINPROGRESS while one is being made,
 * otherwise the reason why there is none. A program without a poll loop may call it now and then; one that
 * wants to be found by a daemon that starts while its main loop hangs calls it on another thread. */
QV_EXPORT int qv_process(void);

/* ---- operations --------------------------------------------------------------------------------------- */

/* A slot that the calling thread holds, for one operation at a time. */
typedef struct qv_slot qv_slot;

/* Takes a slot for the calling thread. The first QV_HANG_NAME_BYTES - 1 (63) bytes of `name` name the hang in
 * reports, and with it the report's file. Null when this process has no region, or all slots are taken
 * (counted by qv_untracked); every qv_slot_ function accepts null and does nothing. The slot is the thread's
 * until qv_slot_release or until the thread ends. */
QV_EXPORT qv_slot* qv_slot_claim(const char* name);
QV_EXPORT void qv_slot_release(qv_slot* slot);

/* Begins an operation now, in place of one that the slot may already hold; `wants_kelvane` asks for a trace
 * report when it hangs. From the slot's thread only, as qv_slot_end. */
QV_EXPORT void qv_slot_begin(qv_slot* slot, bool wants_kelvane);
QV_EXPORT void qv_slot_end(qv_slot* slot);

/* A slot's operations where they nest: a turn of a main loop whose handler runs a loop of its own. The end of
 * an inner turn doesn't end the outer one, which goes on as one that begins now: something has just been
 * done. A loop that is about to wait calls qv_slot_end, however deep it is. <quorvel-sd-event.h>,
 * <quorvel-glib.h> and <quorvel-qt.hpp> do all that. */
QV_EXPORT void qv_turn_begin(qv_slot* slot, bool wants_kelvane);
QV_EXPORT void qv_turn_end(qv_slot* slot);

/* An operation in flight; all zeros when it isn't tracked. The fields are the library's own. */
typedef struct qv_operation {
  uint64_t owner;
  uint32_t slot;
} qv_operation;

/* Begins an operation of the calling thread in any free slot, with a name of its own as above. When all slots
 * are taken the operation isn't tracked, and qv_untracked counts it. An operation that its thread leaves
 * behind ends with the thread. */
QV_EXPORT qv_operation qv_begin(const char* name, bool wants_kelvane);

/* Ends it, on any thread; a second time, or for an operation that isn't tracked, does nothing. */
QV_EXPORT void qv_end(qv_operation operation);

/* How many operations and slots this process has asked for in vain because all slots were taken. */
QV_EXPORT uint64_t qv_untracked(void);

/* The tick count now; never 0. */
QV_EXPORT uint64_t qv_ticks(void);

/* ---- messages ----------------------------------------------------------------------------------------- */
/* One way: 0 says that the daemon's socket or the buffer took the message, not that the daemon liked it. They
 * never wait for the daemon: -ENOBUFS when QV_MESSAGES_MAX messages wait, -ENOTCONN while there is no
 * connection; what is refused is not sent later. (They do wait for a qv_connect under way on another thread.)
 */

/* A hang that the application found itself, of the thread `thread_id` (0: the calling one), from
 * `start_ticks` to `end_ticks`. Only a watched process is heard. `save_report` asks for a trace report. */
QV_EXPORT int qv_report_hang(const char* name, uint64_t thread_id, uint64_t start_ticks, uint64_t end_ticks,
                             bool save_report);

/* A fence: an interval that applications wait for together, by a number that its makers agree on. Now. */
QV_EXPORT int qv_fence_begin(int64_t fence);
QV_EXPORT int qv_fence_end(int64_t fence);
/* A fence that was given up on. */
QV_EXPORT int qv_fence_blown(uint64_t start_ticks, uint64_t end_ticks);

enum qv_activation_state { QV_STATE_BACKGROUND = 0, QV_STATE_FOREGROUND = 1 };
enum qv_activation_type { QV_TYPE_RESUME = 0, QV_TYPE_LAUNCH = 1 };

/* For launchers: the application `bundle_id`, process `pid`, begins to come up, in the state `state`.
 * `start_ms` is when it was asked for (0: when the daemon hears of it), `proxy_start_ms` when the launcher
 * passed it on (0: now). A begin that finds no end within a minute is dropped. */
QV_EXPORT int qv_activation_begin(int32_t pid, const char* bundle_id, enum qv_activation_state state,
                                  enum qv_activation_type type, uint64_t start_ms, uint64_t proxy_start_ms);

/* It is up, in the state `state`. `end_ms` is when that was (0: now). `result` is the launcher's own, 0
 * to 255, save 32 and 33, which the daemon uses for a missing begin and a missing end. */
QV_EXPORT int qv_activation_end(int32_t pid, const char* bundle_id, enum qv_activation_state state,
                                int result, uint64_t end_ms);

/* The wall clock now. */
QV_EXPORT uint64_t qv_wall_ms(void);

#ifdef __cplusplus
}
#endif

#endif
