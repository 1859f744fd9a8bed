#include "tools/base/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "tools/base/descriptor.h"

namespace quorvelctl {
namespace {

std::error_code lastError() {
  return {errno, std::generic_category()};
}

std::error_code writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return lastError();
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return {};
}

std::error_code fill(int fd, std::string_view bytes, bool synced) {
  if (const std::error_code error = writeAll(fd, bytes)) return error;
  if (fchmod(fd, 0644) != 0) return lastError();
  if (synced && fsync(fd) != 0) return lastError();
  return {};
}

/// Where the last whole line of the file ends; `length`, its length, when it can't be read.
off_t endOfLines(int fd, off_t length) {
  std::array<char, 4096> block;
  for (off_t end = length; end > 0;) {
    const off_t start = std::max<off_t>(end - static_cast<off_t>(block.size()), 0);
    const ssize_t got = pread(fd, block.data(), static_cast<size_t>(end - start), start);
    if (got <= 0) return length;
    const size_t at = std::string_view(block.data(), static_cast<size_t>(got)).rfind('\n');
    if (at != std::string_view::npos) return start + static_cast<off_t>(at) + 1;
    end = start;
  }
  return 0;
}

}  // namespace

std::optional<std::string> readFile(const std::string& path, size_t maxBytes, std::error_code& error) {
  std::optional<std::string> bytes = readStart(path, maxBytes + 1, error);
  if (!bytes || bytes->size() <= maxBytes) return bytes;
  error = std::make_error_code(std::errc::file_too_large);
  return std::nullopt;
}

std::optional<std::string> readStart(const std::string& path, size_t maxBytes, std::error_code& error) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) {
    error = lastError();
    return std::nullopt;
  }
  if (S_ISDIR(status.st_mode)) error = std::make_error_code(std::errc::is_a_directory);
  if (!error && !S_ISREG(status.st_mode)) error = std::make_error_code(std::errc::invalid_argument);
  std::string bytes;
  while (!error) {
    const size_t before = bytes.size();
    if (before == maxBytes) return bytes;
    bytes.resize(std::min(before + size_t{64} * 1024, maxBytes));
    const ssize_t length = read(file.get(), bytes.data() + before, bytes.size() - before);
    if (length < 0) error = lastError();
    bytes.resize(before + static_cast<size_t>(length > 0 ? length : 0));
    if (length == 0) return bytes;
  }
  return std::nullopt;
}

std::error_code makeFolderOf(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  return error;
}

std::error_code replaceFile(const std::string& path, std::string_view bytes, bool synced) {
  const std::filesystem::path directory = std::filesystem::path(path).parent_path();
  std::error_code error;
  std::string temporary = directory / ".quorvelctl-XXXXXX";
  {
    const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    if (file.get() < 0) return lastError();
    error = fill(file.get(), bytes, synced);
  }  // closed first: whoever watches the directory sees one event under the final name, not two
  if (!error && rename(temporary.c_str(), path.c_str()) != 0) error = lastError();
  if (error) {
    unlink(temporary.c_str());
    return error;
  }
  if (synced) {
    const Descriptor folder(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() >= 0) fsync(folder.get());  // a file system that can't is left be
  }
  return {};
}

std::error_code appendSynced(const std::string& path, std::string_view bytes) {
  const Descriptor file(open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600));
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) return lastError();
  if (!S_ISREG(status.st_mode)) return std::make_error_code(std::errc::invalid_argument);
  // Two at once would take back each other's lines.
  while (flock(file.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return lastError();
  }
  if (fstat(file.get(), &status) != 0) return lastError();
  const off_t end = endOfLines(file.get(), status.st_size);
  if (end != status.st_size && ftruncate(file.get(), end) != 0) return lastError();
  std::error_code error = writeAll(file.get(), bytes);
  if (!error && fsync(file.get()) != 0) error = lastError();
  // Half a line would spoil the next export's first one.
  if (error && ftruncate(file.get(), end) != 0) return error;
  if (error) return error;
  const std::string folder = std::filesystem::path(path).parent_path();
  const Descriptor directory(open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() >= 0) fsync(directory.get());  // a file system that can't is left be
  return {};
}

}  // namespace quorvelctl
