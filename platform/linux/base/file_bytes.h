#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/linux/base/unique_fd.h"

namespace quorveld::linux_platform {

/// Mode of the files that others are meant to read.
inline constexpr mode_t kFileMode = 0644;

/// The calling thread's errno as an error_code.
std::error_code lastError();

/// The directory of `path`, which holds a '/'.
std::string directoryOf(const std::string& path);

/// Everything in the regular file at `path`, a link being followed. Nothing, and the reason in `error`, when
/// it can't be read, is something else (EINVAL) or is longer than `maxBytes` (EFBIG). Never waits for a pipe.
std::optional<std::string> readFile(const std::string& path, size_t maxBytes, std::error_code& error);

/// Calls `take` with the lines of the same kind of file, whole ones, some at a time, so that no more of it is
/// in memory; the last one may lack its end. The reason when it can't be read to its end.
std::error_code readLines(const std::string& path, size_t maxBytes,
                          const std::function<void(std::string_view)>& take);

/// Writes all of `bytes`, in as many steps as it takes.
std::error_code writeAll(int fd, std::string_view bytes);

/// Makes `path` and what is missing above it, with mode 0755 save for the last one's `mode`. An existing
/// directory is an error (EEXIST).
std::error_code makeDirectories(const std::string& path, mode_t mode);

/// Makes the directory's entries survive a power cut; a file system that can't is left be.
void syncDirectory(const std::string& path);

/// Whether new contents must be on the disk before they take the old ones' place.
enum class Durability { cached, synced };

/// Puts `bytes` in the place of the file at `path` in one step, with mode kFileMode, its directory being made
/// where it is missing. On an error the old file stays as it is and nothing is left beside it.
[[nodiscard]] std::error_code replaceFile(const std::string& path, std::string_view bytes,
                                          Durability durability);

/// A new file with an unguessable name, mode 0600, removed on destruction unless `keep` was called.
class TemporaryFile {
 public:
  /// In `directory`; on failure `descriptor` answers -1 and `error` is set.
  TemporaryFile(const std::string& directory, std::error_code& error);
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile();

  int descriptor() const { return fd_.get(); }
  const std::string& path() const { return path_; }

  /// The file has got its final name: nothing is left to remove.
  void keep() { path_.clear(); }

 private:
  std::string path_;
  UniqueFd fd_;
};

}  // namespace quorveld::linux_platform
