#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/files.h"
#include "tests/sim/fault_plan.h"

namespace quorveld::sim {

/// A file's bytes: a real memfd, so that what is given a descriptor can write into it.
class MemFile {
 public:
  MemFile();
  ~MemFile();
  MemFile(const MemFile&) = delete;
  MemFile& operator=(const MemFile&) = delete;

  std::string content() const;
  void setContent(std::string_view bytes);
  /// A descriptor with an offset of its own, at 0; the caller's.
  int open() const;

 private:
  int descriptor_;
};

/// A file system in memory, with the directories that the daemon doesn't make itself.
class SimFiles final : public platform::Files {
 public:
  SimFiles(FaultPlan& faults, platform::Clock& clock);

  platform::EntryKind kind(const std::string& path) override;
  std::error_code makeDirectory(const std::string& path, unsigned mode) override;
  std::error_code remove(const std::string& path) override;
  std::vector<platform::FileInfo> regularFiles(const std::string& directory) override;
  std::optional<platform::Space> space(const std::string&) override { return disk; }
  std::unique_ptr<platform::File> createProtected(const std::string& path, std::error_code& error) override;
  /// At once, and `done` before it returns.
  void finish(std::unique_ptr<platform::File> file, const std::string& from, const std::string& to,
              std::function<void(std::error_code)> done) override;
  std::optional<std::string> serializeJson(const platform::Dictionary& dictionary,
                                           std::string& error) override;

  platform::Space disk{.freeBytes = 100, .totalBytes = 100};

  void putFile(const std::string& path, std::string_view content, std::chrono::seconds age = {});
  void putLink(const std::string& path) { entries_[plain(path)] = {.file = nullptr, .link = true}; }
  /// Somebody else takes the file away.
  void takeAway(const std::string& path) { entries_.erase(plain(path)); }
  std::optional<std::string> content(const std::string& path) const;
  /// Names in a directory, sorted.
  std::vector<std::string> list(const std::string& directory) const;
  unsigned mode(const std::string& path) const { return entries_.at(path).mode; }
  int openFiles() const { return *openFiles_; }

  /// Every change that succeeded, in order: "mkdir PATH", "remove PATH", "create PATH", "move FROM TO".
  const std::vector<std::string>& history() const { return history_; }
  void clearHistory() { history_.clear(); }

 private:
  struct Entry {
    std::shared_ptr<MemFile> file;  ///< neither file nor link: a directory
    bool link = false;
    unsigned mode = 0;
    platform::WallTime modified{};  ///< when it was made
  };

  std::error_code move(const std::string& from, const std::string& to);
  bool parentExists(const std::string& path) const;
  /// The path as it is kept: slashes in a row count as one.
  static std::string plain(const std::string& path);

  FaultPlan& faults_;
  platform::Clock& clock_;
  std::map<std::string, Entry> entries_;
  std::shared_ptr<int> openFiles_ = std::make_shared<int>(0);
  std::vector<std::string> history_;
};

/// JSON as the Files interface promises it; nothing when a text is no UTF-8.
std::optional<std::string> toJson(const platform::Dictionary& dictionary);

}  // namespace quorveld::sim
