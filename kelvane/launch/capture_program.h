#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "kelvane/base/proc_files.h"

namespace kelvane {

/// One run of the program kelvane-capture, which lies in quorveld/ beside the library's own file.
///
/// The program gets a memory file with the reason text as its standard input, another for the report as its
/// standard output, and its options as arguments. It has a session of its own, and nothing else of this
/// process's: no descriptor, no signal's handling, no environment but QUORVELD_ROOT. This process sees
/// nothing of it: it sends no SIGCHLD, and only who knows its pidfd can wait for it.
class CaptureProgram {
 public:
  /// Starts it; `problem` says why that failed.
  CaptureProgram(const std::string& reason, const std::vector<std::string>& options);

  /// Waits for the program's end, kReportBudget at most, and then ends it without waiting. Empty, if the
  /// report is whole, else why it isn't.
  std::string await();
  /// Where the report is.
  int report() const { return report_.get(); }

  /// A pipe's end that hangs up once the program and all processes that it started have gone; none, if it
  /// could not be started.
  UniqueFd takeLife() { return std::move(life_); }
  /// The program itself, if it has not been collected yet.
  UniqueFd takeProcess() { return std::move(process_); }

 private:
  std::string start(const std::string& path, const std::string& reason,
                    const std::vector<std::string>& options);

  std::string problem_;
  UniqueFd report_;
  UniqueFd life_;
  UniqueFd process_;
};

}  // namespace kelvane
