#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

namespace kelvane {

/// Owns one descriptor, or none (-1).
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueFd() {
    if (fd_ >= 0) close(fd_);
  }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

/// A file's bytes, or the error (an errno value) that kept them away.
struct FileText {
  std::string text;
  int error = 0;
};

/// Reads on in an open file, `maxBytes` at most.
FileText readOn(int fd, size_t maxBytes);
/// Reads at most `maxBytes` of the file `path`, relative to the directory `dirFd` or AT_FDCWD.
FileText readFileAt(int dirFd, const char* path, size_t maxBytes);

/// The entries of the directory `path` whose names are decimal numbers, in its order; at most `maxEntries`.
std::vector<pid_t> listNumbersAt(int dirFd, const char* path, size_t maxEntries);

/// The C library's text for an errno value.
std::string errorText(int error);

}  // namespace kelvane
