/* The connection's life:
 *
 *   off --qv_connect--> handshake --ready--> ready
 *                        |   ^                 |
 *                 refused,   retry timer    daemon lost
 *                 2 s over   |                 |
 *                        v   |                 |
 *                       waiting <--------------+
 *
 * and from anywhere to off by qv_disconnect. One epoll descriptor, which the application polls, holds the
 * socket of the moment and one timer: the handshake's limit, or the time of the next try. The wait doubles
 * with each try that fails, and starts afresh with a connection that was ready: a daemon that is started by
 * our connecting and has nothing to do answers no handshake, and must not be woken every second.
 *
 * All state is under one lock, held only while nothing can block, save while the handshake is waited for. */
#include "client/connection.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "client/bus.h"
#include "client/descriptors.h"
#include "client/include/quorvel.h"
#include "client/marshal.h"
#include "client/region.h"

enum { kHandshakeMs = 2000, kWatchWaitMs = 250, kFirstRetryMs = 1000, kLastRetryMs = 60000 };

enum state { kOff, kWaiting, kHandshake, kReady };

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t fork_once = PTHREAD_ONCE_INIT;

static struct {
  enum state state;
  int error; /* why the state is kWaiting, negative */
  struct qv_bus* bus;
  int epoll_fd;
  int timer_fd;
  int retry_ms;
  bool watched; /* the daemon is to watch this process */
  char bundle_id[QV_TEXT_MAX + 1];
  char name[QV_TEXT_MAX + 1];
} self = {.epoll_fd = -1, .timer_fd = -1, .retry_ms = kFirstRetryMs};

/* A thread that is cancelled within a system call here would leave the lock taken, and every fork waiting.
 * Returns what `leave` wants. */
static int enter(void) {
  int cancelling;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelling);
  pthread_mutex_lock(&lock);
  return cancelling;
}

static void leave(int cancelling) {
  pthread_mutex_unlock(&lock);
  pthread_setcancelstate(cancelling, NULL);
}

static int64_t now_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* 0 stops the timer. */
static void set_timer(int ms) {
  const struct itimerspec when = {.it_value = {ms / 1000, (long)(ms % 1000) * 1000000}};
  timerfd_settime(self.timer_fd, 0, &when, NULL);
}

static void close_poll(void) {
  if (self.epoll_fd >= 0) close(self.epoll_fd);
  if (self.timer_fd >= 0) close(self.timer_fd);
  self.epoll_fd = self.timer_fd = -1;
}

static int open_poll(void) {
  self.epoll_fd = qv_above_stdio(epoll_create1(EPOLL_CLOEXEC));
  self.timer_fd = qv_above_stdio(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  struct epoll_event event = {.events = EPOLLIN};
  if (self.epoll_fd >= 0 && self.timer_fd >= 0 &&
      epoll_ctl(self.epoll_fd, EPOLL_CTL_ADD, self.timer_fd, &event) == 0) {
    return 0;
  }
  const int error = -errno;
  close_poll();
  return error;
}

/* The child of a fork lets go of everything, so that the daemon notices the parent's end. */
static void after_fork_in_child(void) {
  qv_bus_close(self.bus);
  close_poll();
  qv_region_forget();
  self.state = kOff;
  self.bus = NULL;
  self.retry_ms = kFirstRetryMs;
  self.watched = false;
  pthread_mutex_unlock(&lock);
}

static void before_fork(void) {
  pthread_mutex_lock(&lock);
}
static void after_fork_in_parent(void) {
  pthread_mutex_unlock(&lock);
}
static void handle_forks(void) {
  pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

static void drop_bus(void) {
  if (self.bus) epoll_ctl(self.epoll_fd, EPOLL_CTL_DEL, qv_bus_fd(self.bus), NULL);
  qv_bus_close(self.bus);
  self.bus = NULL;
}

static void lose(int error) {
  drop_bus();
  self.state = kWaiting;
  self.error = error;
  set_timer(self.retry_ms);
  self.retry_ms = self.retry_ms * 2 > kLastRetryMs ? kLastRetryMs : self.retry_ms * 2;
}

static void start(void) {
  int error = 0;
  self.bus = qv_bus_start(&error);
  struct epoll_event event = {.events = EPOLLIN};
  if (self.bus && epoll_ctl(self.epoll_fd, EPOLL_CTL_ADD, qv_bus_fd(self.bus), &event) < 0) error = -errno;
  if (error < 0) {
    lose(error);
    return;
  }
  self.state = kHandshake;
  set_timer(kHandshakeMs);
}

/* Has the epoll descriptor wake for what the bus waits for now. */
static void follow_bus(void) {
  if (!self.bus) return;
  struct epoll_event event = {.events = EPOLLIN | (qv_bus_waits(self.bus) ? EPOLLOUT : 0u)};
  epoll_ctl(self.epoll_fd, EPOLL_CTL_MOD, qv_bus_fd(self.bus), &event);
}

/* A message over the connection that stands, which may turn out to be lost. */
static int send_message(enum QVCommand command, const struct qv_field* fields, size_t count) {
  bool is_lost = false;
  const int result = qv_bus_send(self.bus, command, fields, count, &is_lost);
  if (is_lost) lose(result);
  follow_bus();
  return is_lost ? -ENOTCONN : result;
}

static int send_watch(void) {
  const int memory = qv_region_ensure();
  if (memory < 0) return memory;
  const struct qv_field fields[] = {{QV_KEY_SHMEM, 'h', {.descriptor = memory}},
                                    {QV_KEY_BUNDLE_ID, 's', {.text = self.bundle_id}},
                                    {QV_KEY_NAME, 's', {.text = self.name}}};
  return send_message(QV_COMMAND_START_WATCHING, fields, 3);
}

static void become_ready(void) {
  set_timer(0);
  self.state = kReady;
  self.retry_ms = kFirstRetryMs;
  if (!self.watched) return;
  const int error = send_watch();
  if (error < 0 && self.bus) lose(error);
}

/* Takes what the descriptors have to say. */
static void step(void) {
  uint64_t expirations;
  const bool timer_fired = read(self.timer_fd, &expirations, sizeof expirations) > 0;
  const bool handshake_over = timer_fired && self.state == kHandshake;
  if (timer_fired && self.state == kWaiting) start();
  const int result = self.bus ? qv_bus_process(self.bus) : 0;
  if (result < 0) {
    lose(result);
  } else if (self.state == kHandshake && qv_bus_is_ready(self.bus)) {
    become_ready();
  } else if (handshake_over) {
    lose(-ETIMEDOUT);
  }
  follow_bus();
}

static int standing(void) {
  switch (self.state) {
    case kReady:
      return 0;
    case kHandshake:
      return -EINPROGRESS;
    case kWaiting:
      return self.error;
    case kOff:
      break;
  }
  return -ENOTCONN;
}

/* Waits for the handshake, for `wait_ms` at the most. */
static int connect_locked(int wait_ms) {
  if (self.state == kOff) {
    pthread_once(&fork_once, handle_forks);
    const int error = open_poll();
    if (error < 0) return error;
    self.retry_ms = kFirstRetryMs;
  }
  if (self.state != kHandshake && self.state != kReady) start();
  const int64_t until_ms = now_ms() + wait_ms;
  for (int64_t left_ms = wait_ms; self.state == kHandshake && left_ms > 0; left_ms = until_ms - now_ms()) {
    struct pollfd ready = {self.epoll_fd, POLLIN, 0};
    poll(&ready, 1, (int)left_ms);
    step();
  }
  return standing();
}

static int copy_text(char out[QV_TEXT_MAX + 1], const char* text) {
  const size_t length = strnlen(text, QV_TEXT_MAX + 1);
  if (length > QV_TEXT_MAX) return -ENAMETOOLONG;
  if (!qv_is_utf8(text)) return -EINVAL;
  memcpy(out, text, length);
  out[length] = '\0';
  return 0;
}

static int watch_locked(const char* bundle_id, const char* name) {
  if (self.watched) return -EALREADY;
  int error = copy_text(self.bundle_id, bundle_id);
  if (error == 0) error = copy_text(self.name, name);
  const int memory = error == 0 ? qv_region_ensure() : error;
  if (memory < 0) return memory;
  const bool was_ready = self.state == kReady;
  self.watched = true;
  error = connect_locked(kWatchWaitMs); /* registers when it becomes ready */
  if (self.state == kOff) self.watched = false;
  if (!was_ready || error < 0) return error;
  error = send_watch();
  /* Where the connection turned out to be lost, the next one registers. */
  if (self.state != kReady) return standing();
  if (error < 0) self.watched = false;
  return error;
}

int qv_connect(void) {
  const int cancelling = enter();
  const int result = connect_locked(kHandshakeMs);
  leave(cancelling);
  return result;
}

int qv_watch(const char* bundle_id, const char* name) {
  if (!bundle_id || !name) return -EINVAL;
  const int cancelling = enter();
  const int result = watch_locked(bundle_id, name);
  leave(cancelling);
  return result;
}

void qv_disconnect(void) {
  const int cancelling = enter();
  drop_bus();
  close_poll();
  self.state = kOff;
  self.watched = false;
  leave(cancelling);
}

int qv_fd(void) {
  const int cancelling = enter();
  const int result = self.epoll_fd >= 0 ? self.epoll_fd : -ENOTCONN;
  leave(cancelling);
  return result;
}

int qv_process(void) {
  const int cancelling = enter();
  if (self.state != kOff) step();
  const int result = standing();
  leave(cancelling);
  return result;
}

static int send_locked(enum QVCommand command, const struct qv_field* fields, size_t count) {
  return self.state == kReady ? send_message(command, fields, count) : -ENOTCONN;
}

int qv_send(enum QVCommand command, const struct qv_field* fields, size_t count) {
  const int cancelling = enter();
  const int result = send_locked(command, fields, count);
  leave(cancelling);
  return result;
}

int qv_unwatch(void) {
  const int cancelling = enter();
  self.watched = false;
  const int result = send_locked(QV_COMMAND_STOP_WATCHING, NULL, 0);
  leave(cancelling);
  return result;
}
