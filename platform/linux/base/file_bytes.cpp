#include "platform/linux/base/file_bytes.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace quorveld::linux_platform {

namespace {

constexpr size_t kReadStepBytes = size_t{16} * 1024;

/// Not open, and the reason in `error`, when it is no regular file.
UniqueFd openRegular(const std::string& path, std::error_code& error) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) {
    error = lastError();
    return {};
  }
  if (S_ISREG(status.st_mode)) return fd;
  error = std::make_error_code(std::errc::invalid_argument);
  return {};
}

/// Appends at most `atMost` bytes; how many, or nothing on an error.
std::optional<size_t> readStep(int fd, std::string& bytes, size_t atMost) {
  const size_t have = bytes.size();
  bytes.resize(have + atMost);
  ssize_t got = -1;
  do {
    got = ::read(fd, bytes.data() + have, atMost);
  } while (got < 0 && errno == EINTR);
  bytes.resize(have + static_cast<size_t>(std::max<ssize_t>(got, 0)));
  return got < 0 ? std::nullopt : std::optional(static_cast<size_t>(got));
}

}  // namespace

std::error_code lastError() {
  return {errno, std::generic_category()};
}

std::string directoryOf(const std::string& path) {
  return path.substr(0, std::max<size_t>(path.rfind('/'), 1));
}

std::optional<std::string> readFile(const std::string& path, size_t maxBytes, std::error_code& error) {
  const UniqueFd fd = openRegular(path, error);
  if (!fd) return std::nullopt;
  std::string bytes;
  for (;;) {
    const auto got = readStep(fd.get(), bytes, std::min(kReadStepBytes, maxBytes + 1 - bytes.size()));
    if (!got) {
      error = lastError();
      return std::nullopt;
    }
    if (*got == 0) return bytes;
    if (bytes.size() > maxBytes) {
      error = std::make_error_code(std::errc::file_too_large);
      return std::nullopt;
    }
  }
}

std::error_code readLines(const std::string& path, size_t maxBytes,
                          const std::function<void(std::string_view)>& take) {
  std::error_code error;
  const UniqueFd fd = openRegular(path, error);
  if (!fd) return error;
  std::string bytes;
  for (size_t all = 0; all <= maxBytes;) {
    const auto got = readStep(fd.get(), bytes, kReadStepBytes);
    if (!got) return lastError();
    all += *got;
    const size_t whole = *got == 0 ? bytes.size() : bytes.rfind('\n') + 1;
    take(std::string_view(bytes).substr(0, whole));
    bytes.erase(0, whole);
    if (*got == 0) return {};
  }
  return std::make_error_code(std::errc::file_too_large);
}

std::error_code writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return lastError();
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return {};
}

std::error_code makeDirectories(const std::string& path, mode_t mode) {
  if (::mkdir(path.c_str(), mode) == 0) return {};
  if (errno != ENOENT) return lastError();
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (::mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) return lastError();
  }
  return ::mkdir(path.c_str(), mode) == 0 ? std::error_code() : lastError();
}

void syncDirectory(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) ::fsync(fd.get());
}

std::error_code replaceFile(const std::string& path, std::string_view bytes, Durability durability) {
  const std::string directory = directoryOf(path);
  std::error_code error = makeDirectories(directory, 0755);
  if (error && error != std::errc::file_exists) return error;
  error.clear();
  TemporaryFile file(directory, error);
  if (error) return error;
  error = writeAll(file.descriptor(), bytes);
  if (error) return error;
  if (::fchmod(file.descriptor(), kFileMode) != 0) return lastError();
  if (durability == Durability::synced && ::fsync(file.descriptor()) != 0) return lastError();
  if (::rename(file.path().c_str(), path.c_str()) != 0) return lastError();
  file.keep();
  if (durability == Durability::synced) syncDirectory(directory);
  return {};
}

TemporaryFile::TemporaryFile(const std::string& directory, std::error_code& error)
    : path_(directory + "/.quorveld-XXXXXX"), fd_(::mkostemp(path_.data(), O_CLOEXEC)) {
  if (fd_) return;
  error = lastError();
  path_.clear();
}

TemporaryFile::~TemporaryFile() {
  if (!path_.empty()) ::unlink(path_.c_str());
}

}  // namespace quorveld::linux_platform
