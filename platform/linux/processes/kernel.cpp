#include "platform/linux/processes/kernel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "platform/linux/base/unique_fd.h"

namespace quorveld::linux_platform {

namespace {

constexpr std::string_view kDeletedSuffix = " (deleted)";

/// The kernel appends the suffix to the path of a file that has been unlinked or replaced; a file may also
/// be named so, and then it is still what the path names.
bool isDeletedMark(const std::string& link, const std::string& target) {
  if (!target.ends_with(kDeletedSuffix)) return false;
  struct stat running {};
  struct stat named {};
  const bool same = ::stat(link.c_str(), &running) == 0 && ::lstat(target.c_str(), &named) == 0 &&
                    running.st_dev == named.st_dev && running.st_ino == named.st_ino;
  return !same;
}

}  // namespace

std::optional<std::string> LinuxKernel::executablePath(int32_t pid) {
  if (pid <= 0) return std::nullopt;
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  std::array<char, platform::kMaxPathBytes - 1> buffer;
  // A kernel thread has no executable (ENOENT); another user's process may be refused (EACCES).
  const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size());
  if (length <= 0) return std::nullopt;
  std::string target(buffer.data(), static_cast<size_t>(length));
  if (isDeletedMark(link, target)) target.resize(target.size() - kDeletedSuffix.size());
  return target;
}

std::optional<std::string> LinuxKernel::processName(int32_t pid) {
  const UniqueFd comm(::open(("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
  if (!comm) return std::nullopt;
  std::array<char, 64> buffer;  // TASK_COMM_LEN is 16; the line ends with a line break
  const ssize_t length = ::read(comm.get(), buffer.data(), buffer.size());
  if (length <= 1) return std::nullopt;
  return std::string(buffer.data(), static_cast<size_t>(length - 1));
}

}  // namespace quorveld::linux_platform
