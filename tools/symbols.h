#pragma once

#include <elfutils/libdwfl.h>

#include <map>
#include <string>

#include "tools/report.h"

namespace quorvelctl {

/// Names functions by the symbol tables of the files that a report names, where the file with the same build
/// id still is at its path. It opens those files, so the report has to be one that its reader trusts.
class Symbols {
 public:
  Symbols();
  ~Symbols();
  Symbols(const Symbols&) = delete;
  Symbols& operator=(const Symbols&) = delete;

  /// Demangled; empty when there is no such file or no symbol.
  std::string nameOf(const ReportFrame& frame);

 private:
  Dwfl_Module* moduleOf(const ReportFrame& frame);

  Dwfl* dwfl_;
  std::map<std::string, Dwfl_Module*> modules_;  ///< by path; null: of no use
};

}  // namespace quorvelctl
