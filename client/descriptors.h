/* Library-internal. */
#ifndef QUORVEL_CLIENT_DESCRIPTORS_H
#define QUORVEL_CLIENT_DESCRIPTORS_H

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

/* The same file by a descriptor above 2, and `fd` closed if it was none: in an application that was started
 * with its standard streams closed, ours would become one, and what it prints would go there. -1 and errno
 * where there is none free, or `fd` is -1. */
static inline int qv_above_stdio(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int above = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  close(fd);
  errno = error;
  return above;
}

#endif
