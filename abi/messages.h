/* The messages that clients send to quorveld: a dictionary with "command" and that command's keys. One way;
 * nothing is answered. The types are D-Bus's: x int64, t uint64, s string, b bool, h file descriptor. C11 and
 * C++20.
 */
#ifndef QUORVELD_ABI_MESSAGES_H
#define QUORVELD_ABI_MESSAGES_H

/* The service; on Linux the socket <root>/run/quorveld/com.corvix.quorveld, and the interface and member of a
 * message. */
#define QV_SERVICE_NAME "com.corvix.quorveld"
#define QV_SOCKET_PATH "/run/quorveld/com.corvix.quorveld"
#define QV_MESSAGE_PATH "/com/corvix/quorveld"
#define QV_MESSAGE_INTERFACE "com.corvix.quorveld"
#define QV_MESSAGE_MEMBER "Message"
#define QV_MESSAGE_SIGNATURE "a{sv}"

enum QVCommand {
  QV_COMMAND_START_WATCHING = 1,
  QV_COMMAND_STOP_WATCHING = 2,
  QV_COMMAND_HANG_DETECTED = 3,
  QV_COMMAND_ACTIVATION_BEGIN = 4,
  QV_COMMAND_ACTIVATION_END = 5,
  QV_COMMAND_FENCE_BEGIN = 6,
  QV_COMMAND_FENCE_END = 7,
  QV_COMMAND_FENCE_BLOWN = 8,
};

#define QV_KEY_COMMAND "command"                         /* x, every message */
#define QV_KEY_SHMEM "shmem"                             /* h: 1 */
#define QV_KEY_BUNDLE_ID "bundle-id"                     /* s: 1, 4, 5 */
#define QV_KEY_NAME "name"                               /* s: 1, 3; x: 6, 7 */
#define QV_KEY_PID "pid"                                 /* x: 4, 5 */
#define QV_KEY_START_TIME "startTime"                    /* x, ticks: 3, 6, 8; t, ms since 2001 (0: now): 4 */
#define QV_KEY_END_TIME "endTime"                        /* x, ticks: 3, 7, 8; t, ms since 2001 (0: now): 5 */
#define QV_KEY_THREAD_ID "threadID"                      /* x: 3 */
#define QV_KEY_SAVE_REPORT "saveReport"                  /* b: 3 */
#define QV_KEY_LAUNCH_PROXY_START "ipxStartLatency"      /* t, ms since 2001: 4 */
#define QV_KEY_ACTIVATION_STATE "app-activation-state"   /* x, 1 foreground, 0 background: 4, 5 */
#define QV_KEY_ACTIVATION_TYPE "app-activation-type"     /* x, 1 launch: 4 */
#define QV_KEY_ACTIVATION_RESULT "app-activation-result" /* x: 5 */

#endif
