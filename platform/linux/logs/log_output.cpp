#include "platform/linux/logs/log_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quorveld::linux_platform {

namespace {

/// What journald may be behind by, in bytes: some thousand lines.
constexpr int kJournalBufferBytes = 1 << 20;

/// systemd sets JOURNAL_STREAM to "device:inode" of the stream that it connected (systemd.exec(5)); a child
/// that has had its stderr redirected inherits the variable but not the stream.
bool isJournalStream(const struct stat& status) {
  const char* stream = std::getenv("JOURNAL_STREAM");
  if (!stream) return false;
  std::array<char, 64> expected;
  std::snprintf(expected.data(), expected.size(), "%ju:%ju", static_cast<uintmax_t>(status.st_dev),
                static_cast<uintmax_t>(status.st_ino));
  return std::strcmp(stream, expected.data()) == 0;
}

}  // namespace

LogOutput::LogOutput(std::string_view journalSocket) {
  struct stat status {};
  if (::fstat(STDERR_FILENO, &status) != 0) return;
  if (isJournalStream(status)) {
    address_.sun_family = AF_UNIX;
    journalSocket.copy(address_.sun_path, sizeof address_.sun_path - 1);
    journal_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    (void)::setsockopt(journal_.get(), SOL_SOCKET, SO_SNDBUF, &kJournalBufferBytes,
                       sizeof kJournalBufferBytes);
  }
  isSocket_ = S_ISSOCK(status.st_mode);
  isFile_ = S_ISREG(status.st_mode);
  if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
    own_.reset(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  }
}

bool LogOutput::sendToJournal(std::string_view fields) {
  return ::sendto(journal_.get(), fields.data(), fields.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address_), sizeof address_) >= 0;
}

bool LogOutput::writeToStderr(std::string_view line) {
  if (isSocket_) {
    return ::send(STDERR_FILENO, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
  }
  if (!own_ && !isFile_) {
    // Another user's pipe, which can't be opened. A line fits into what is reported as free.
    pollfd writable{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&writable, 1, 0) != 1) return false;
  }
  const int fd = own_ ? own_.get() : STDERR_FILENO;
  ssize_t written = 0;
  do {
    written = ::write(fd, line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  return written >= 0;
}

}  // namespace quorveld::linux_platform
