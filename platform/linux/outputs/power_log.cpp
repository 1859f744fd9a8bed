#include "platform/linux/outputs/power_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/root_path.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/files/json_serializer.h"

namespace quorveld::linux_platform {

namespace {

constexpr char kRecordsPath[] = "/var/log/quorveld/activations.jsonl";
constexpr char kLeftOutPath[] = "/var/log/quorveld/activations-left-out.jsonl";
constexpr mode_t kRecordsFolderMode = 0755;

/// The event as one line, its line break included; nothing, and the reason in `error`, when a text in it is
/// no UTF-8.
std::optional<std::string> lineOf(const platform::ActivationEvent& event, std::string& error) {
  const std::pair<const char*, const platform::Dictionary*> members[] = {
      {"{\"activationData\":", &event.activationData},
      {",\"cpuData\":", &event.cpuData},
      {",\"vmData\":", &event.vmData},
      {",\"processData\":", &event.processData},
  };
  std::string line;
  for (const auto& [key, dictionary] : members) {
    const std::optional<std::string> json = toJson(*dictionary, error);
    if (!json) return std::nullopt;
    line += key;
    line += *json;
  }
  if (!event.moreData.empty()) {
    const std::optional<std::string> json = toJson(event.moreData, error);
    if (!json) return std::nullopt;
    line += ",\"moreData\":" + *json;
  }
  return line + "}\n";
}

/// 0 when it has none.
uint64_t identifierOf(const platform::ActivationEvent& event) {
  for (const auto& [key, value] : event.activationData) {
    const auto* identifier = std::get_if<uint64_t>(&value.data);
    if (key == "ActivationID" && identifier) return *identifier;
  }
  return 0;
}

/// Where the last whole line of the file ends.
off_t endOfLines(int file, off_t length) {
  std::array<char, 4096> block;
  while (length > 0) {
    const off_t start =
        length > static_cast<off_t>(block.size()) ? length - static_cast<off_t>(block.size()) : 0;
    const ssize_t got = ::pread(file, block.data(), static_cast<size_t>(length - start), start);
    if (got <= 0) return length;
    const size_t at = std::string_view(block.data(), static_cast<size_t>(got)).rfind('\n');
    if (at != std::string_view::npos) return start + static_cast<off_t>(at) + 1;
    length = start;
  }
  return 0;
}

}  // namespace

void LinuxPowerLog::handOver(const platform::ActivationEvent& event) {
  std::string reason;
  if (const std::optional<std::string> line = lineOf(event, reason)) {
    const std::error_code error = append(rooted(kRecordsPath), *line, maxFileBytes_);
    if (error) reason = error.message();
  }
  if (!reason.empty() && !failing_) {
    logDefault("Failed to append an activation to %s: %s", rooted(kRecordsPath).c_str(), reason.c_str());
  }
  failing_ = !reason.empty();
  if (!reason.empty()) leaveOut(identifierOf(event), reason);
}

/// A failure costs whoever waits a little time, and the disk that it is about is told of by `handOver`.
void LinuxPowerLog::leaveOut(uint64_t activationID, std::string_view reason) {
  std::string error;
  const std::optional<std::string> json =
      toJson({{"ActivationID", {activationID}}, {"Reason", {std::string(reason)}}}, error);
  if (json) (void)append(rooted(kLeftOutPath), *json + "\n", kMaxLeftOutBytes);
}

std::error_code LinuxPowerLog::append(const std::string& path, std::string_view line, uint64_t maxBytes) {
  if (line.size() > maxBytes) return std::make_error_code(std::errc::file_too_large);
  const std::error_code made = makeDirectories(directoryOf(path), kRecordsFolderMode);
  if (made && made != std::errc::file_exists) return made;

  UniqueFd file;
  struct stat status {};
  const auto open = [&] {
    file.reset(
        ::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileMode));
    return file && ::fstat(file.get(), &status) == 0;
  };
  if (!open()) return lastError();
  if (!S_ISREG(status.st_mode)) return std::make_error_code(std::errc::invalid_argument);
  if (static_cast<uint64_t>(status.st_size) + line.size() > maxBytes) {
    if (std::rename(path.c_str(), (path + ".1").c_str()) != 0 || !open()) return lastError();
  }

  // A daemon that was killed, or a disk that filled up, may have left the beginning of a line.
  const off_t end = endOfLines(file.get(), status.st_size);
  if (end != status.st_size && ::ftruncate(file.get(), end) != 0) return lastError();
  const ssize_t written = ::write(file.get(), line.data(), line.size());
  if (written == static_cast<ssize_t>(line.size())) return {};
  const std::error_code error =
      written < 0 ? lastError() : std::make_error_code(std::errc::no_space_on_device);
  if (written > 0 && ::ftruncate(file.get(), end) != 0) return lastError();
  return error;
}

}  // namespace quorveld::linux_platform
