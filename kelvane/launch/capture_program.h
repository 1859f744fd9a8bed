#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "kelvane/base/proc_files.h"

namespace kelvane {

/// One run of the program kelvane-capture (own_program.h), which makes one report.
///
/// The program gets a memory file with the reason text as its standard input, others for the report as its
/// standard output and for the finding, and its options as arguments.
class CaptureProgram {
 public:
  /// Starts it; if that fails, `await` says why. `samples` is the socket over which the hung thread's samples
  /// come, -1 if none do; the caller's.
  CaptureProgram(const std::string& reason, const std::vector<std::string>& options, int samples);

  /// Waits for the program's end, kReportBudget at most, and then ends it without waiting. Empty, if the
  /// report is whole, else why it isn't.
  std::string await();
  /// Where the report is.
  int report() const { return report_.get(); }
  /// Where the verdict in short is (readFinding).
  int finding() const { return finding_.get(); }

  /// A pipe's end that hangs up once the program and all processes that it started have gone; none, if it
  /// could not be started.
  UniqueFd takeLife() { return std::move(life_); }
  /// The program itself, if it has not been collected yet.
  UniqueFd takeProcess() { return std::move(process_); }

 private:
  std::string start(const std::string& reason, const std::vector<std::string>& options, int samples);

  std::string problem_;
  UniqueFd report_;
  UniqueFd finding_;
  UniqueFd life_;
  UniqueFd process_;
};

}  // namespace kelvane
