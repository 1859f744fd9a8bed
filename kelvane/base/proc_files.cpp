#include "kelvane/base/proc_files.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

namespace kelvane {
namespace {

constexpr size_t kChunkBytes = 4096;

}  // namespace

FileText readFileAt(int dirFd, const char* path, size_t maxBytes) {
  const UniqueFd fd(openat(dirFd, path, O_RDONLY | O_CLOEXEC | O_NOCTTY));
  return fd ? readOn(fd.get(), maxBytes) : FileText{{}, errno};
}

FileText readOn(int fd, size_t maxBytes) {
  FileText result;
  while (result.text.size() < maxBytes) {
    size_t held = result.text.size();
    size_t part = std::min(kChunkBytes, maxBytes - held);
    result.text.resize(held + part);
    ssize_t got = read(fd, result.text.data() + held, part);
    int error = errno;
    result.text.resize(held + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got == 0) break;
    if (got < 0 && error != EINTR) {
      result.error = error;
      break;
    }
  }
  return result;
}

std::vector<pid_t> listNumbersAt(int dirFd, const char* path, size_t maxEntries) {
  std::vector<pid_t> numbers;
  UniqueFd fd(openat(dirFd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return numbers;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(fdopendir(fd.get()), closedir);
  if (!dir) return numbers;
  fd.release();
  while (numbers.size() < maxEntries) {
    const dirent* entry = readdir(dir.get());
    if (!entry) break;
    std::string_view name = entry->d_name;
    pid_t number = 0;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error == std::errc() && end == name.data() + name.size() && number > 0) numbers.push_back(number);
  }
  return numbers;
}

std::string errorText(int error) {
  char buffer[128];
  return strerror_r(error, buffer, sizeof buffer);
}

}  // namespace kelvane
