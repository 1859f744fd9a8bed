#include "platform/linux/files/files.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/root_path.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/files/json_serializer.h"

namespace quorveld::linux_platform {

namespace {

class LinuxFile final : public platform::File {
 public:
  explicit LinuxFile(UniqueFd fd) : fd_(std::move(fd)) {}

  int descriptor() const override { return fd_.get(); }

  std::error_code write(std::string_view bytes) override {
    const ssize_t written = ::write(fd_.get(), bytes.data(), bytes.size());
    if (written < 0) return lastError();
    // The disk or the file's size limit was reached within the text.
    if (static_cast<size_t>(written) != bytes.size())
      return std::make_error_code(std::errc::no_space_on_device);
    return {};
  }

 private:
  UniqueFd fd_;
};

std::error_code resultOf(int status) {
  return status == 0 ? std::error_code() : lastError();
}

/// Gives `from` the name `to` unless something has it already; both on one file system.
std::error_code renameWithoutReplacing(const char* from, const char* to) {
  const std::error_code error = resultOf(::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE));
  // What a file system answers that knows no flags, and a kernel that lacks the call.
  if (error != std::errc::invalid_argument && error != std::errc::function_not_supported) return error;
  if (::link(from, to) != 0) return lastError();
  return resultOf(::unlink(from));
}

std::error_code copyContents(int from, int to) {
  for (;;) {
    constexpr size_t kStepBytes = 1U << 20U;
    const ssize_t copied = ::sendfile(to, from, nullptr, kStepBytes);
    if (copied == 0) return {};
    if (copied < 0 && errno != EINTR) return lastError();
  }
}

std::error_code moveAcrossFileSystems(const std::string& from, const std::string& to) {
  const UniqueFd source(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!source || ::fstat(source.get(), &status) != 0) return lastError();
  if (!S_ISREG(status.st_mode)) return std::make_error_code(std::errc::cross_device_link);
  std::error_code error;
  TemporaryFile copy(directoryOf(to), error);
  if (!error) error = copyContents(source.get(), copy.descriptor());
  if (error) return error;
  if (::fchmod(copy.descriptor(), status.st_mode & 07777U) != 0) return lastError();
  if (::fsync(copy.descriptor()) != 0) return lastError();
  error = renameWithoutReplacing(copy.path().c_str(), to.c_str());
  if (error) return error;
  copy.keep();
  return resultOf(::unlink(from.c_str()));
}

std::error_code moveFile(const std::string& from, const std::string& to) {
  std::error_code error = renameWithoutReplacing(from.c_str(), to.c_str());
  // Folders that are bind mounts of their own, as a sandbox makes them, answer so even on one disk.
  if (error == std::errc::cross_device_link) error = moveAcrossFileSystems(from, to);
  if (!error) syncDirectory(directoryOf(to));
  return error;
}

}  // namespace

platform::EntryKind LinuxFiles::kind(const std::string& path) {
  struct stat status {};
  const std::string real = rooted(path);
  if (::lstat(real.c_str(), &status) != 0) return platform::EntryKind::missing;
  // A directory that an administrator has put elsewhere is one all the same.
  if (S_ISLNK(status.st_mode)) (void)::stat(real.c_str(), &status);
  return S_ISDIR(status.st_mode) ? platform::EntryKind::directory : platform::EntryKind::other;
}

std::error_code LinuxFiles::makeDirectory(const std::string& path, unsigned mode) {
  // The superuser's folder is nobody else's to enter, and so are the reports in it.
  if (path.starts_with("/var/root/")) (void)makeDirectories(rooted("/var/root"), 0700);
  return makeDirectories(rooted(path), mode);
}

std::error_code LinuxFiles::remove(const std::string& path) {
  return resultOf(::unlink(rooted(path).c_str()));
}

std::vector<platform::FileInfo> LinuxFiles::regularFiles(const std::string& directory) {
  std::vector<platform::FileInfo> files;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(rooted(directory), error), end; !error && entry != end;
       entry.increment(error)) {
    struct stat status {};
    if (::lstat(entry->path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
    const auto modified =
        std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec);
    files.push_back(
        {entry->path().filename(), static_cast<uint64_t>(status.st_size), platform::WallTime(modified)});
  }
  return files;
}

std::optional<platform::Space> LinuxFiles::space(const std::string& directory) {
  struct statvfs status {};
  if (::statvfs(rooted(directory).c_str(), &status) != 0) return std::nullopt;
  return platform::Space{uint64_t{status.f_bavail} * status.f_frsize,
                         uint64_t{status.f_blocks} * status.f_frsize};
}

std::unique_ptr<platform::File> LinuxFiles::createProtected(const std::string& path, std::error_code& error) {
  if (finishing_.waiting() >= kMaxFinishingFiles) {
    error = std::make_error_code(std::errc::device_or_resource_busy);
    return nullptr;
  }
  UniqueFd fd(::open(rooted(path).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode));
  // Locked for as long as it is open: one that is being finished has the name until it has moved.
  if (fd && ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    error = std::make_error_code(std::errc::device_or_resource_busy);
    return nullptr;
  }
  // The umask does not cut a report's mode: whoever collects reports may read them.
  if (!fd || ::fchmod(fd.get(), kFileMode) != 0) {
    error = lastError();
    return nullptr;
  }
  return std::make_unique<LinuxFile>(std::move(fd));
}

void LinuxFiles::finish(std::unique_ptr<platform::File> file, const std::string& from, const std::string& to,
                        std::function<void(std::error_code)> done) {
  auto work = [file = std::make_shared<std::unique_ptr<platform::File>>(std::move(file)), from = rooted(from),
               to = rooted(to)] {
    std::error_code error = resultOf(::fsync((*file)->descriptor()));
    if (!error) error = moveFile(from, to);
    if (error) (void)::unlink(from.c_str());
    file->reset();  // whoever hears that it is done may open it anew: its lock is to be gone by then
    return error;
  };
  if (!finishing_.tryPost(work, done)) done(work());
}

std::optional<std::string> LinuxFiles::serializeJson(const platform::Dictionary& dictionary,
                                                     std::string& error) {
  return toJson(dictionary, error);
}

}  // namespace quorveld::linux_platform
