#include "platform/linux/power_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <system_error>

#include "platform/linux/file_bytes.h"
#include "platform/linux/json_serializer.h"
#include "platform/linux/linux_log.h"
#include "platform/linux/root_path.h"
#include "platform/linux/unique_fd.h"

namespace quorveld::linux_platform {

namespace {

constexpr off_t kMaxFileBytes = 16 * 1024 * 1024;

std::string logPath() {
  return rooted("/var/log/quorveld/activations.jsonl");
}

/// Appends with one write; a line that didn't go out whole is taken back, so that the next begins a line of
/// its own.
std::error_code appendLine(const std::string& path, const std::string& line) {
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  struct stat before {};
  if (!file || ::fstat(file.get(), &before) != 0) return lastError();
  const ssize_t written = ::write(file.get(), line.data(), line.size());
  if (written == static_cast<ssize_t>(line.size())) return {};
  const std::error_code error =
      written < 0 ? lastError() : std::make_error_code(std::errc::no_space_on_device);
  if (written > 0) (void)!::ftruncate(file.get(), before.st_size);
  return error;
}

}  // namespace

void LinuxPowerLog::handOver(const platform::ActivationEvent& event) {
  std::string error;
  const auto json = toJson({{"activationData", {event.activationData}},
                            {"cpuData", {event.cpuData}},
                            {"vmData", {event.vmData}},
                            {"processData", {event.processData}}},
                           error);
  if (!json) {
    logDefault("An activation event can't be written as JSON: %s", error.c_str());
    return;
  }
  append(*json + "\n");
}

void LinuxPowerLog::append(const std::string& line) {
  const std::string path = logPath();
  (void)makeDirectories(directoryOf(path), 0755);  // what is wrong with it, opening the file tells
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && status.st_size >= kMaxFileBytes) {
    (void)::rename(path.c_str(), (path + ".1").c_str());
  }
  const std::error_code error = appendLine(path, line);
  if (error && !saidFailed_) logDefault("Can't append to %s: %s", path.c_str(), error.message().c_str());
  saidFailed_ = static_cast<bool>(error);
}

}  // namespace quorveld::linux_platform
