#pragma once

#include <cstdint>
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

  /// Hands everything to the disk and closes, so that a later move can't show half a file after a power cut.
  [[nodiscard]] virtual std::error_code close() = 0;
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
  /// device is locked). Null, and the reason in `error`, on failure.
  [[nodiscard]] virtual std::unique_ptr<File> createProtected(const std::string& path,
                                                              std::error_code& error) = 0;

  /// Moves a file; an existing `to` is an error and stays as it is.
  [[nodiscard]] virtual std::error_code move(const std::string& from, const std::string& to) = 0;

  /// Renames a file, replacing an existing `to` in one step.
  [[nodiscard]] virtual std::error_code rename(const std::string& from, const std::string& to) = 0;

  /// JSON text of a dictionary, UTF-8, no white space; nothing, and the reason in `error`, when a text in it
  /// is no UTF-8.
  virtual std::optional<std::string> serializeJson(const Dictionary& dictionary, std::string& error) = 0;
};

}  // namespace quorveld::platform
