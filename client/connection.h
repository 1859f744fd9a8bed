/* The process's connection to the daemon. Library-internal. */
#ifndef QUORVEL_CLIENT_CONNECTION_H
#define QUORVEL_CLIENT_CONNECTION_H

#include <stddef.h>
#include <stdint.h>

#include "abi/messages.h"

/* One key of a message. `type` is D-Bus's: x, t, s, b or h. */
struct qv_field {
  const char* key;
  char type;
  union {
    int64_t int64;
    uint64_t uint64;
    const char* text; /* null: the key is left out */
    int boolean;
    int descriptor;
  } value;
};

/* Sends one message over the connection that stands, or buffers it, as quorvel.h promises for messages. Any
 * thread. */
int qv_send(enum QVCommand command, const struct qv_field* fields, size_t count);

#endif
