#include "kelvane/recording/recorder_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace kelvane {
namespace {

constexpr std::chrono::milliseconds kLockPoll{2};
constexpr const char* kInstance = "instance";
constexpr const char* kStarted = "started";
/// Of a 64-bit number, so that a new one overwrites the old one in place, on a full disk too.
constexpr size_t kStartedDigits = 20;

bool lock(int fd, const Deadline& deadline) {
  while (flock(fd, LOCK_EX | LOCK_NB) < 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    if (deadline.passed()) {
      errno = EWOULDBLOCK;
      return false;
    }
    std::this_thread::sleep_for(kLockPoll);
  }
  return true;
}

}  // namespace

std::string RecorderFolder::path() {
  const char* root = std::getenv("QUORVELD_ROOT");
  std::string path = root ? root : "";
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path + "/run/kelvane";
}

std::optional<RecorderFolder> RecorderFolder::open(const Deadline& deadline, std::string& error) {
  UniqueFd fd(::open(path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd) {
    error = errno == ENOENT ? kRecorderNotRunning : path() + ": " + errorText(errno);
    return std::nullopt;
  }
  if (!lock(fd.get(), deadline)) {
    error = errno == EWOULDBLOCK ? "someone else has been reading it all the time"
                                 : path() + ": " + errorText(errno);
    return std::nullopt;
  }
  return RecorderFolder(std::move(fd));
}

std::optional<RecorderFolder> RecorderFolder::make(const Deadline& deadline, std::string& error) {
  std::error_code failure;
  std::filesystem::create_directories(std::filesystem::path(path()).parent_path(), failure);
  if (mkdir(path().c_str(), 0700) < 0 && errno != EEXIST) {
    error = path() + ": " + errorText(errno);
    return std::nullopt;
  }
  return open(deadline, error);
}

UniqueFd RecorderFolder::openInstance() const {
  return UniqueFd(openat(fd_.get(), kInstance, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::string RecorderFolder::instancePath() const {
  char target[4096];
  const ssize_t length = readlinkat(fd_.get(), kInstance, target, sizeof target);
  return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

bool RecorderFolder::linkInstance(const std::string& instance) const {
  unlinkInstance();
  return symlinkat(instance.c_str(), fd_.get(), kInstance) == 0;
}

void RecorderFolder::unlinkInstance() const {
  unlinkat(fd_.get(), kInstance, 0);
}

std::optional<uint64_t> RecorderFolder::startedNs() const {
  const FileText file = readFileAt(fd_.get(), kStarted, kStartedDigits);
  uint64_t started = 0;
  const auto [end, error] = std::from_chars(file.text.data(), file.text.data() + file.text.size(), started);
  if (error != std::errc()) return std::nullopt;
  return started;
}

bool RecorderFolder::forgetPast(uint64_t nowNs) const {
  std::error_code failure;
  for (const auto& entry : std::filesystem::directory_iterator(path(), failure)) {
    const std::string name = entry.path().filename();
    if (name.starts_with("cpu")) unlinkat(fd_.get(), name.c_str(), 0);
  }
  std::string digits = std::to_string(nowNs);
  digits.insert(0, kStartedDigits - digits.size(), '0');
  const UniqueFd file(openat(fd_.get(), kStarted, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  return file && pwrite(file.get(), digits.data(), digits.size(), 0) == static_cast<ssize_t>(digits.size());
}

}  // namespace kelvane
