#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/clock.h"
#include "platform/value.h"

namespace quorveld::platform {

/// A regular file in a folder.
struct FileInfo {
  std::string name;
  uint64_t sizeBytes;
  WallTime modified;
};

/// What a file system holds, and what of it is free for users without privileges.
struct Space {
  uint64_t freeBytes;
  uint64_t totalBytes;
};

enum class EntryKind { missing, directory, other };

/// An open file; closed on destruction.
class File {
 public:
  virtual ~File() = default;

  /// For the trace library, which writes into it; stays owned by this object.
  virtual int descriptor() const = 0;

  /// Writes all of `bytes` with one write; an error when not all of it fitted.
  [[nodiscard]] virtual std::error_code write(std::string_view bytes) = 0;
};

/// Files of the daemon. Paths are absolute, below the platform's root; no operation follows a symbolic link
/// in the last component. An empty error_code means success. From any thread.
class Files {
 public:
  virtual ~Files() = default;

  /// A link to a directory is a directory; any other link is something else.
  virtual EntryKind kind(const std::string& path) = 0;
  [[nodiscard]] virtual std::error_code makeDirectory(const std::string& path, unsigned mode) = 0;
  virtual std::error_code remove(const std::string& path) = 0;

  /// The regular files of `directory`, not of those below it, in no order; none when it can't be read.
  virtual std::vector<FileInfo> regularFiles(const std::string& directory) = 0;

  /// Of the file system that `directory` is on; nothing when that can't be told.
  virtual std::optional<Space> space(const std::string& directory) = 0;

  /// Opens read-write, creating without truncation, with mode 0644 in protection class 4 (readable while the
  /// device is locked). Null, and the reason in `error`, on failure; also while too many files are being
  /// finished, or one of that name.
  [[nodiscard]] virtual std::unique_ptr<File> createProtected(const std::string& path,
                                                              std::error_code& error) = 0;

  /// Gives a `file` that was made at `from` to the disk and then the name `to`, so that half a file isn't
  /// shown there even after a power cut.
  ///
  /// Beside the caller and in the order of the calls. `done` is told how it went, on any thread, unless the
  /// daemon has ended by then. `from` has gone in either case, and can't be created again before. A file that
  /// has the name stays, and that is an error.
  virtual void finish(std::unique_ptr<File> file, const std::string& from, const std::string& to,
                      std::function<void(std::error_code)> done) = 0;

  /// JSON text of a dictionary, UTF-8, no white space; nothing, and the reason in `error`, when a text in it
  /// is no UTF-8.
  virtual std::optional<std::string> serializeJson(const Dictionary& dictionary, std::string& error) = 0;
};

}  // namespace quorveld::platform
