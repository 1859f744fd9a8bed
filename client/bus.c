#include "client/bus.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/descriptors.h"
#include "client/include/quorvel.h"
#include "client/marshal.h"

/* All that a client has to say before its first message, at once. EXTERNAL: the kernel says who this is; so
 * the name that is asked for after it stays empty, as a number would mean another user outside of a user
 * namespace. */
static const char kGreeting[] = "\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n";
/* What the daemon answers: lines that begin like this. */
static const char* const kAnswers[] = {"DATA", "OK ", "AGREE_UNIX_FD"};
enum { kAnswerCount = sizeof kAnswers / sizeof kAnswers[0], kAnswerBytes = 128 };
/* Read at a time, and how often before others have their turn. */
enum { kReadBytes = 512, kReadsPerCall = 64 };

/* A message, or the rest of one, that the socket had no room for. */
struct waiting {
  struct waiting* next;
  size_t length;
  size_t sent;
  int descriptor; /* the queue's own, until the message's first byte has been sent; -1: none */
  unsigned char bytes[];
};

struct qv_bus {
  int fd;
  uint32_t last_serial;
  int answers;               /* that have come */
  char answer[kAnswerBytes]; /* the line that is coming */
  size_t answer_length;
  struct waiting* first;
  struct waiting** end; /* where the next one is put */
  unsigned waiting;
};

static int connect_socket(void) {
  const char* root = secure_getenv("QUORVELD_ROOT");
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  const int length =
      snprintf(address.sun_path, sizeof address.sun_path, "%s%s", root ? root : "", QV_SOCKET_PATH);
  if (length < 0 || (size_t)length >= sizeof address.sun_path) return -ENAMETOOLONG;
  const int fd = qv_above_stdio(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd < 0) return -errno;
  const ssize_t greeting = sizeof kGreeting - 1;
  ssize_t sent = connect(fd, (const struct sockaddr*)&address, sizeof address);
  if (sent == 0) sent = send(fd, kGreeting, (size_t)greeting, MSG_NOSIGNAL);
  if (sent == greeting) return fd;
  const int error = sent < 0 ? -errno : -EIO; /* a socket that is new has room for that */
  close(fd);
  return error;
}

struct qv_bus* qv_bus_start(int* error) {
  const int fd = connect_socket();
  struct qv_bus* bus = fd >= 0 ? calloc(1, sizeof *bus) : NULL;
  if (!bus) {
    *error = fd >= 0 ? -ENOMEM : fd;
    if (fd >= 0) close(fd);
    return NULL;
  }
  bus->fd = fd;
  bus->end = &bus->first;
  return bus;
}

static void drop_first(struct qv_bus* bus) {
  struct waiting* first = bus->first;
  bus->first = first->next;
  if (!bus->first) bus->end = &bus->first;
  --bus->waiting;
  if (first->descriptor >= 0) close(first->descriptor);
  free(first);
}

void qv_bus_close(struct qv_bus* bus) {
  if (!bus) return;
  while (bus->first) drop_first(bus);
  close(bus->fd);
  free(bus);
}

int qv_bus_fd(const struct qv_bus* bus) {
  return bus->fd;
}

bool qv_bus_waits(const struct qv_bus* bus) {
  return bus->first != NULL;
}

bool qv_bus_is_ready(const struct qv_bus* bus) {
  return bus->answers == kAnswerCount;
}

/* One byte of the handshake. */
static int take_answer(struct qv_bus* bus, char byte) {
  bus->answer[bus->answer_length++] = byte;
  if (byte == '\n') {
    const char* expected = kAnswers[bus->answers];
    if (strncmp(bus->answer, expected, strlen(expected)) != 0) return -EPROTO;
    ++bus->answers;
    bus->answer_length = 0;
  }
  return bus->answer_length < sizeof bus->answer ? 0 : -EPROTO;
}

/* 1 when there may be more. Behind the handshake the daemon has nothing to say: whatever comes is thrown
 * away, and descriptors with it, which the kernel closes as they are not asked for. */
static int take_input(struct qv_bus* bus) {
  char bytes[kReadBytes];
  const ssize_t got = recv(bus->fd, bytes, sizeof bytes, 0);
  if (got == 0) return -ECONNRESET;
  if (got < 0) return errno == EAGAIN ? 0 : errno == EINTR ? 1 : -errno;
  for (ssize_t i = 0; i < got && !qv_bus_is_ready(bus); ++i) {
    const int result = take_answer(bus, bytes[i]);
    if (result < 0) return result;
  }
  return 1;
}

/* Sends some of it: how much, or a negative errno, -EAGAIN where there is no room. */
static ssize_t send_some(int fd, const unsigned char* bytes, size_t length, int descriptor) {
  union {
    struct cmsghdr header; /* for its alignment */
    char bytes[CMSG_SPACE(sizeof(int))];
  } control = {.bytes = {0}};
  struct iovec part = {(void*)bytes, length};
  struct msghdr message = {.msg_iov = &part, .msg_iovlen = 1};
  if (descriptor >= 0) {
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    struct cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof descriptor);
    memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  }
  ssize_t sent;
  do {
    sent = sendmsg(fd, &message, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? -errno : sent;
}

static int send_waiting(struct qv_bus* bus) {
  while (bus->first) {
    struct waiting* first = bus->first;
    const ssize_t sent =
        send_some(bus->fd, first->bytes + first->sent, first->length - first->sent, first->descriptor);
    if (sent < 0) return sent == -EAGAIN ? 0 : (int)sent;
    if (first->descriptor >= 0) close(first->descriptor);
    first->descriptor = -1;
    first->sent += (size_t)sent;
    if (first->sent == first->length) drop_first(bus);
  }
  return 0;
}

int qv_bus_process(struct qv_bus* bus) {
  int result = 1;
  for (int i = 0; result > 0 && i < kReadsPerCall; ++i) result = take_input(bus);
  return result < 0 ? result : send_waiting(bus);
}

/* Keeps what is left of a message, with a copy of its descriptor unless that has gone. */
static int keep(struct qv_bus* bus, const struct qv_message* message, size_t sent) {
  struct waiting* last = malloc(sizeof *last + message->length);
  if (!last) return -ENOMEM;
  *last = (struct waiting){.length = message->length, .sent = sent, .descriptor = -1};
  memcpy(last->bytes, message->bytes, message->length);
  if (message->descriptor >= 0 && sent == 0) {
    last->descriptor = fcntl(message->descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (last->descriptor < 0) {
      const int error = -errno;
      free(last);
      return error;
    }
  }
  *bus->end = last;
  bus->end = &last->next;
  ++bus->waiting;
  return 0;
}

int qv_bus_send(struct qv_bus* bus, enum QVCommand command, const struct qv_field* fields, size_t count,
                bool* is_lost) {
  *is_lost = false;
  if (bus->waiting >= QV_MESSAGES_MAX) return -ENOBUFS;
  struct qv_message message;
  const int error = qv_marshal(&message, bus->last_serial + 1, command, fields, count);
  if (error < 0) return error;
  if (++bus->last_serial == UINT32_MAX) bus->last_serial = 0; /* 0 is none */
  ssize_t sent = bus->first ? -EAGAIN : send_some(bus->fd, message.bytes, message.length, message.descriptor);
  if (sent == -EAGAIN) sent = 0;
  *is_lost = sent < 0;
  if (sent < 0 || (size_t)sent == message.length) return sent < 0 ? (int)sent : 0;
  const int kept = keep(bus, &message, (size_t)sent);
  *is_lost = kept < 0 && sent > 0; /* half a message has gone */
  return kept;
}
