#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace kelvane {

/// Writes a report over an open file, from its start, through one buffer.
///
/// The file is emptied first, so a longer report before this one leaves nothing behind. A signal that a write
/// raises (SIGXFSZ at the file size limit, SIGPIPE) is taken back and never reaches the process. Writing
/// does not wait for the disk: a report is worth less than the queue that a sick disk would hold up.
class ReportFile {
 public:
  /// `fd` stays the caller's; its file offset is neither used nor moved.
  explicit ReportFile(int fd);

  /// Whether anything can be written: false for what is no file.
  bool isOpen() const { return !failed_; }

  /// Appends. After the first failure everything is dropped.
  void write(std::string_view bytes);
  void write(char byte) { write(std::string_view(&byte, 1)); }

  /// Writes out what is buffered; whether every byte since the start is in the file.
  [[nodiscard]] bool finish();

 private:
  void flush();

  int fd_;
  off_t offset_ = 0;
  bool failed_ = false;
  std::string buffer_;
};

}  // namespace kelvane
