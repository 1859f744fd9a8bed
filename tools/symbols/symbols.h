#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/report/report.h"
#include "tools/symbols/dwfl_functions.h"

namespace quorvelctl {

/// Which of the files that a report names are opened. Reports name whatever the hung process had mapped, and
/// a file made for it could turn whoever parses it.
enum class SymbolFiles {
  /// Those that only root or the reader can have put there: theirs, writable for nobody else, and on no
  /// mount of a user's, where the owners are the user's to choose.
  trusted,
  all,
};

/// Names functions by symbol tables, without a network. A file is used only if its build id is the one that
/// the report gives: a debug file below /usr/lib/debug/.build-id or a folder that was given, and the module
/// at its path. Of what is no regular file not even a device is woken.
class Symbols {
 public:
  /// `debugDirs` are looked through first: for .build-id/xx/yyyy.debug, and for files named like the module,
  /// with or without .debug at the end.
  Symbols(std::vector<std::string> debugDirs, SymbolFiles which);
  ~Symbols();
  Symbols(const Symbols&) = delete;
  Symbols& operator=(const Symbols&) = delete;

  /// Demangled; empty when there is no such file or no symbol.
  std::string nameOf(const ReportFrame& frame);

  /// Why nothing can be named; empty: it can.
  const std::string& problem() const { return problem_; }

  /// Whether a file with the frame's build id was found.
  bool hasFileOf(const ReportFrame& frame) { return !filesOf(frame).empty(); }

 private:
  const std::vector<Dwfl_Module*>& filesOf(const ReportFrame& frame);
  Dwfl_Module* open(const std::string& path, const std::string& buildId);

  std::vector<std::string> debugDirs_;
  const SymbolFiles which_;
  std::string problem_;
  const DwflFunctions* library_;
  Dwfl_Callbacks callbacks_{};  ///< of dwfl_, which keeps only where they are
  Dwfl* dwfl_ = nullptr;        ///< null: there is a problem
  /// What all files and names together may take yet, beside the files' mappings. Symbols of the largest
  /// programs unpack to some ten megabytes.
  uint64_t leftBytes_ = uint64_t{256} << 20;
  /// By the module's path and build id: the files of use, the one with the most symbols first as a rule.
  std::map<std::pair<std::string, std::string>, std::vector<Dwfl_Module*>> files_;
};

}  // namespace quorvelctl
