#pragma once

#include <memory>
#include <span>
#include <string>

#include "platform/linux/processes/process_table_records.h"
#include "platform/linux/processes/process_table_sample.h"

namespace quorveld::linux_platform {

/// A way to read every process in one pass. One caller at a time.
class ProcessSource {
 public:
  virtual ~ProcessSource() = default;

  /// How the log names it.
  virtual const char* name() const = 0;

  /// Samples of all processes, in any order, valid until the next call; empty on failure, logged once a
  /// streak. `before` is what became of the last pass.
  virtual std::span<const process_sample> read(const ProcessRecords& before) = 0;

  /// Gives back what the last pass filled.
  virtual void rest() {}
};

/// The two BPF programs that can fill the samples.
enum class BpfPass {
  taskWalk,      ///< walks all tasks in one system call; needs the kernel's task iterator functions (6.7)
  taskIterator,  ///< runs once a thread behind a file that is read to its end
};

/// Loads a BPF source, which takes tens of milliseconds; null, and the reason in `why`, when the kernel, the
/// privileges or the build don't have it.
[[nodiscard]] std::unique_ptr<ProcessSource> openBpfSource(BpfPass pass, std::string& why);

/// A source that reads /proc; null, and the reason in `why`, when there is no /proc.
[[nodiscard]] std::unique_ptr<ProcessSource> openProcfsSource(std::string& why);

}  // namespace quorveld::linux_platform
