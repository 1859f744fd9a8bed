#include "kelvane/report/report_file.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace kelvane {
namespace {

constexpr size_t kBufferBytes = size_t{64} * 1024;

/// Blocks the signals of a failing write for this thread, and takes back those raised meanwhile.
class WriteSignals {
 public:
  WriteSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGXFSZ);
    sigaddset(&signals_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
    sigpending(&pendingBefore_);
  }
  WriteSignals(const WriteSignals&) = delete;
  WriteSignals& operator=(const WriteSignals&) = delete;
  ~WriteSignals() {
    for (int signal : {SIGXFSZ, SIGPIPE}) {
      sigset_t pending;
      sigpending(&pending);
      if (!sigismember(&pending, signal) || sigismember(&pendingBefore_, signal)) continue;
      sigset_t one;
      sigemptyset(&one);
      sigaddset(&one, signal);
      const timespec noWait{};
      while (sigtimedwait(&one, nullptr, &noWait) < 0 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t signals_;
  sigset_t before_;
  sigset_t pendingBefore_;
};

}  // namespace

ReportFile::ReportFile(int fd) : fd_(fd) {
  buffer_.reserve(kBufferBytes);
  WriteSignals guard;
  // Pipes, sockets and devices are refused here, before anything could block on them.
  int result;
  do result = ftruncate(fd_, 0);
  while (result < 0 && errno == EINTR);
  failed_ = result < 0;
}

void ReportFile::write(std::string_view bytes) {
  while (!failed_ && !bytes.empty()) {
    size_t part = std::min(bytes.size(), kBufferBytes - buffer_.size());
    buffer_.append(bytes.substr(0, part));
    bytes.remove_prefix(part);
    if (buffer_.size() == kBufferBytes) flush();
  }
}

bool ReportFile::finish() {
  flush();
  return !failed_;
}

void ReportFile::flush() {
  WriteSignals guard;
  std::string_view rest = buffer_;
  while (!failed_ && !rest.empty()) {
    ssize_t written = pwrite(fd_, rest.data(), rest.size(), offset_);
    if (written > 0) {
      offset_ += written;
      rest.remove_prefix(static_cast<size_t>(written));
    } else if (written == 0 || errno != EINTR) {
      failed_ = true;
    }
  }
  buffer_.clear();
}

}  // namespace kelvane
