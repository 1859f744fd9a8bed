#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/files.h"
#include "platform/linux/base/background_thread.h"

namespace quorveld::linux_platform {

/// Files that wait for a slow disk; while there are so many, no further one is created. Those that were
/// created before are finished all the same, beside their caller.
inline constexpr size_t kMaxFinishingFiles = 4;

/// The daemon's files, below the instance's root. Protection classes have no counterpart: an encrypted disk
/// is open while the system runs.
class LinuxFiles final : public platform::Files {
 public:
  platform::EntryKind kind(const std::string& path) override;

  /// Makes what is missing above `path` as well, with mode 0755: no one else makes the daemon's caches.
  std::error_code makeDirectory(const std::string& path, unsigned mode) override;

  std::error_code remove(const std::string& path) override;
  std::vector<platform::FileInfo> regularFiles(const std::string& directory) override;
  std::optional<platform::Space> space(const std::string& directory) override;
  std::unique_ptr<platform::File> createProtected(const std::string& path, std::error_code& error) override;

  /// Across file systems the file is copied, by way of a name that starts with '.'.
  void finish(std::unique_ptr<platform::File> file, const std::string& from, const std::string& to,
              std::function<void(std::error_code)> done) override;

  std::optional<std::string> serializeJson(const platform::Dictionary& dictionary,
                                           std::string& error) override;

 private:
  // Without a limit of its own: what was created has to be finished, and never by whoever calls `finish`.
  BackgroundThread finishing_{"quorveld-files", SIZE_MAX, std::chrono::seconds(5)};
};

}  // namespace quorveld::linux_platform
