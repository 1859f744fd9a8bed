/* A message in D-Bus's format. Library-internal. */
#ifndef QUORVEL_CLIENT_MARSHAL_H
#define QUORVEL_CLIENT_MARSHAL_H

#include <stdbool.h>

#include "client/connection.h"

/* More than any message of the library's comes to: it has two texts at the most. */
enum { kMessageBytes = 4096 };

struct qv_message {
  size_t length;
  int descriptor; /* that goes along, the caller's; -1: none */
  unsigned char bytes[kMessageBytes];
};

/* Writes the method call that says `command` with `fields`, one descriptor among them at the most. -EINVAL
 * for a text that is no UTF-8, -ENAMETOOLONG for one of more than QV_TEXT_MAX bytes, -EMSGSIZE where all
 * together don't fit. */
int qv_marshal(struct qv_message* message, uint32_t serial, enum QVCommand command,
               const struct qv_field* fields, size_t count);

/* Whether D-Bus takes it for a string. */
bool qv_is_utf8(const char* text);

#endif
