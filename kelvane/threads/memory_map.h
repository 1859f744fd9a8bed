#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane {

/// A file, or the kernel's vDSO, as a process has mapped it.
struct MappedModule {
  uint64_t start = 0;  // of the first mapping
  uint64_t end = 0;    // of the last one
  uint64_t firstEnd = 0;
  uint64_t fileOffset = 0;  // of the first mapping
  uint64_t inode = 0;
  bool executable = false;  // in at least one of its mappings
  std::string path;

  bool isVdso() const { return path == "[vdso]"; }
};

/// Joins the text of /proc/PID/maps into modules: neighbouring mappings of one file with rising offsets are
/// one. Takes the text in pieces of any size.
class MemoryMapParser {
 public:
  void feed(std::string_view text);
  /// The modules so far; call once, last.
  std::vector<MappedModule> finish();
  bool full() const;

 private:
  void addLine(std::string_view line);
  void closeModule();

  std::string partialLine_;
  MappedModule open_;
  std::vector<MappedModule> modules_;
};

}  // namespace kelvane
