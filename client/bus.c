#include "client/bus.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "client/include/quorvel.h"

/* The socket's D-Bus address. Every byte that isn't optionally-escaped is written as %xx; three times a path
 * that fits a socket address fits the buffer, and a longer one is refused by the connect. */
enum { kAddressBytes = 1024 };

static int socket_address(char address[kAddressBytes]) {
  const char* root = secure_getenv("QUORVELD_ROOT");
  char path[kAddressBytes / 4];
  const int length = snprintf(path, sizeof path, "%s%s", root ? root : "", QV_SOCKET_PATH);
  if (length < 0 || (size_t)length >= sizeof path) return -ENAMETOOLONG;
  char* out = stpcpy(address, "unix:path=");
  for (const char* c = path; *c; ++c) {
    const unsigned char byte = (unsigned char)*c;
    if ((byte < 0x80 && isalnum(byte)) || strchr("-_/.", byte)) {
      *out++ = (char)byte;
      *out = '\0';
    } else {
      out += sprintf(out, "%%%02x", byte);
    }
  }
  return 0;
}

sd_bus* qv_bus_start(int* error) {
  char address[kAddressBytes];
  sd_bus* bus = NULL;
  int result = socket_address(address);
  if (result >= 0) result = sd_bus_new(&bus);
  if (result >= 0) result = sd_bus_set_address(bus, address);
  if (result >= 0) result = sd_bus_negotiate_fds(bus, 1);
  if (result >= 0) result = sd_bus_start(bus);
  if (result >= 0) return bus;
  sd_bus_unref(bus);
  *error = result;
  return NULL;
}

static int append(sd_bus_message* message, const struct qv_field* field) {
  switch (field->type) {
    case 'x':
      return sd_bus_message_append(message, "{sv}", field->key, "x", field->value.int64);
    case 't':
      return sd_bus_message_append(message, "{sv}", field->key, "t", field->value.uint64);
    case 's':
      if (!field->value.text) return 0;
      if (strnlen(field->value.text, QV_TEXT_MAX + 1) > QV_TEXT_MAX) return -ENAMETOOLONG;
      return sd_bus_message_append(message, "{sv}", field->key, "s", field->value.text);
    case 'b':
      return sd_bus_message_append(message, "{sv}", field->key, "b", field->value.boolean);
    case 'h':
      return sd_bus_message_append(message, "{sv}", field->key, "h", field->value.descriptor);
    default:
      return -EINVAL;
  }
}

static int fill(sd_bus_message* message, enum QVCommand command, const struct qv_field* fields,
                size_t count) {
  const struct qv_field first = {QV_KEY_COMMAND, 'x', {.int64 = command}};
  int result = sd_bus_message_open_container(message, 'a', "{sv}");
  if (result >= 0) result = append(message, &first);
  for (size_t i = 0; result >= 0 && i < count; ++i) result = append(message, &fields[i]);
  if (result >= 0) result = sd_bus_message_close_container(message);
  if (result >= 0) result = sd_bus_message_set_expect_reply(message, 0);
  return result;
}

int qv_bus_send(sd_bus* bus, enum QVCommand command, const struct qv_field* fields, size_t count) {
  uint64_t waiting = 0;
  int result = sd_bus_get_n_queued_write(bus, &waiting);
  if (result >= 0 && waiting >= QV_MESSAGES_MAX) return -ENOBUFS;
  sd_bus_message* message = NULL;
  if (result >= 0) {
    result = sd_bus_message_new_method_call(bus, &message, NULL, QV_MESSAGE_PATH, QV_MESSAGE_INTERFACE,
                                            QV_MESSAGE_MEMBER);
  }
  if (result >= 0) result = fill(message, command, fields, count);
  if (result >= 0) result = sd_bus_send(bus, message, NULL);
  sd_bus_message_unref(message);
  return result < 0 ? result : 0;
}
