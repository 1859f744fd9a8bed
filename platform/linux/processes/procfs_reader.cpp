#include "platform/linux/processes/procfs_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

#include "platform/linux/base/unique_fd.h"

namespace quorveld::linux_platform {

std::string_view ProcfsReader::read(const char* path) {
  const UniqueFd file(openat(dirfd(directory_.get()), path, O_RDONLY | O_CLOEXEC));
  if (!file) return {};
  ssize_t length = -1;
  do {
    length = ::read(file.get(), buffer_.data(), buffer_.size());
  } while (length < 0 && errno == EINTR);
  return length > 0 ? std::string_view(buffer_.data(), static_cast<size_t>(length)) : std::string_view();
}

int32_t ProcfsReader::numberOf(const char* name) {
  int32_t number = 0;
  const char* end = name + std::strlen(name);
  const auto [stop, error] = std::from_chars(name, end, number);
  return error == std::errc() && stop == end ? number : 0;
}

}  // namespace quorveld::linux_platform
