/* One peer-to-peer D-Bus connection to the daemon. Library-internal; the caller sees to locking. */
#ifndef QUORVEL_CLIENT_BUS_H
#define QUORVEL_CLIENT_BUS_H

#include <systemd/sd-bus.h>

#include "client/connection.h"

/* Starts to connect to the daemon below $QUORVELD_ROOT, without waiting. Null and a negative errno in
 * `*error` when nobody listens there. Released with sd_bus_unref. */
sd_bus* qv_bus_start(int* error);

/* Queues one message. -ENOBUFS when QV_MESSAGES_MAX wait already. */
int qv_bus_send(sd_bus* bus, enum QVCommand command, const struct qv_field* fields, size_t count);

#endif
