#pragma once

#include <dirent.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

namespace quorveld::linux_platform {

/// Reads small files below one directory that stays open, into one buffer. One caller at a time.
class ProcfsReader {
 public:
  /// Holds `io`, `stat` and, of `status`, all that comes before the long bit masks.
  static constexpr size_t kBufferBytes = 8192;

  /// `open` false: errno says why.
  explicit ProcfsReader(const char* directory) : directory_(opendir(directory)) {}
  explicit operator bool() const { return directory_ != nullptr; }

  /// The first bytes of the file, valid until the next call; empty with errno set on failure.
  std::string_view read(const char* path);

  /// Calls `each(id)` for every entry that is a number: /proc's processes, or a process's threads.
  template <typename Each>
  void forEachNumber(const Each& each) {
    rewinddir(directory_.get());
    while (const dirent* entry = readdir(directory_.get())) {
      const int32_t id = numberOf(entry->d_name);
      if (id > 0) each(id);
    }
  }

 private:
  struct Close {
    void operator()(DIR* directory) const { closedir(directory); }
  };

  /// 0 when `name` is no decimal number that fits.
  static int32_t numberOf(const char* name);

  std::unique_ptr<DIR, Close> directory_;
  std::array<char, kBufferBytes> buffer_;
};

}  // namespace quorveld::linux_platform
