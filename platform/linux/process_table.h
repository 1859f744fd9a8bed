#pragma once

#include <memory>
#include <mutex>

#include "platform/linux/process_table_records.h"
#include "platform/linux/process_table_source.h"
#include "platform/process_table.h"

namespace quorveld::linux_platform {

/// Linux's processes, kernel threads included, through the fastest source that kernel and privileges allow.
///
/// From any thread: looks are taken one after another. A look's answers are all of its one pass, whatever
/// becomes of a process afterwards. Kept between looks is the last one alone, from which the next one tells
/// how much each process has spent: it holds live processes only, so it can't grow beyond them.
class LinuxProcessTables final : public platform::ProcessTables {
 public:
  /// Chooses the source at the first look, since loading a BPF program takes tens of milliseconds, and logs
  /// it.
  LinuxProcessTables() = default;

  /// With this source and no other.
  explicit LinuxProcessTables(std::unique_ptr<ProcessSource> source) : source_(std::move(source)) {}

  [[nodiscard]] std::unique_ptr<platform::ProcessTable> look() override;

 private:
  std::mutex mutex_;
  std::unique_ptr<ProcessSource> source_;
  std::shared_ptr<const ProcessRecords> last_ = std::make_shared<ProcessRecords>();
};

}  // namespace quorveld::linux_platform
