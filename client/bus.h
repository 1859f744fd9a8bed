/* One peer-to-peer D-Bus connection to the daemon. Library-internal; the caller sees to locking. Nothing here
 * waits. */
#ifndef QUORVEL_CLIENT_BUS_H
#define QUORVEL_CLIENT_BUS_H

#include <stdbool.h>

#include "client/connection.h"

struct qv_bus;

/* Starts to connect to the daemon below $QUORVELD_ROOT. Null and a negative errno in `*error` when nobody
 * listens there. Released with qv_bus_close. */
struct qv_bus* qv_bus_start(int* error);

/* Closes it; messages that wait are lost. Null is allowed. */
void qv_bus_close(struct qv_bus* bus);

/* Its socket, for polling: it is readable when qv_bus_process has something to do, and writable is waited for
 * only while qv_bus_waits. */
int qv_bus_fd(const struct qv_bus* bus);
bool qv_bus_waits(const struct qv_bus* bus);

/* Takes what the daemon says and sends what waits. 0, or why the connection is lost, a negative errno. */
int qv_bus_process(struct qv_bus* bus);

/* Whether the handshake is over, and messages can be sent. */
bool qv_bus_is_ready(const struct qv_bus* bus);

/* Sends one message, or queues it. -ENOBUFS when QV_MESSAGES_MAX wait already, -EINVAL and -ENAMETOOLONG for
 * its texts, -ENOMEM and -EMFILE where there is no room to queue it; any other error is a lost
 * connection's, and `*is_lost` tells so. */
int qv_bus_send(struct qv_bus* bus, enum QVCommand command, const struct qv_field* fields, size_t count,
                bool* is_lost);

#endif
