#include "platform/linux/processes/kernel.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/processes/procfs_reader.h"

namespace quorveld::linux_platform {

namespace {

/// The kernel appends it to the path of a file that has been unlinked or replaced (d_path). A file may also
/// be named so; to find out would be to look up a path that somebody else has chosen, and to wait for whoever
/// answers there.
constexpr std::string_view kDeletedSuffix = " (deleted)";

std::optional<std::string> programBehind(const std::string& link) {
  std::array<char, platform::kMaxPathBytes - 1> buffer;
  const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size());
  if (length <= 0) return std::nullopt;
  std::string target(buffer.data(), static_cast<size_t>(length));
  if (target.ends_with(kDeletedSuffix)) target.resize(target.size() - kDeletedSuffix.size());
  return target;
}

}  // namespace

std::optional<std::string> LinuxKernel::executablePath(int32_t pid) {
  if (pid <= 0) return std::nullopt;
  const std::string process = "/proc/" + std::to_string(pid);
  std::optional<std::string> program = programBehind(process + "/exe");
  // A kernel thread has none (ENOENT), nor a main thread that has ended; another user's may be refused
  // (EACCES).
  if (program || errno != ENOENT) return program;
  ProcfsReader threads((process + "/task").c_str());
  if (!threads) return std::nullopt;
  threads.forEachNumber([&](int32_t tid) {
    if (!program && tid != pid) program = programBehind(process + "/task/" + std::to_string(tid) + "/exe");
  });
  return program;
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
