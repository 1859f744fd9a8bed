#pragma once

#include <memory>
#include <mutex>
#include <thread>

#include "platform/linux/processes/process_table_records.h"
#include "platform/linux/processes/process_table_source.h"
#include "platform/process_table.h"

namespace quorveld::linux_platform {

/// Linux's processes, kernel threads included, through the fastest source that kernel and privileges allow.
///
/// From any thread: looks are taken one after another, so one may wait for a pass, or the loading of the
/// source, that another queue has under way. A look's answers are all of its one pass, whatever
/// becomes of a process afterwards. Kept between looks is the last one alone, from which the next one tells
/// how much each process has spent, and until `rest` the places of its samples and of the look before: they
/// hold live processes only, so they can't grow beyond them. Memory reports let those go with each of their
/// looks, the activation tracker when nothing has begun for a minute, or a thousand launches later.
class LinuxProcessTables final : public platform::ProcessTables {
 public:
  /// The source is chosen by `prepare` or the first look, and logged: loading a BPF program takes tens of
  /// milliseconds and a short-lived process, which a daemon that takes no snapshots has no use for.
  LinuxProcessTables() : LinuxProcessTables(nullptr) {}

  /// With this source and no other. Either sets the allocator's thresholds for the whole process, so that
  /// arrays of 1 MB and more are given back when they are freed.
  explicit LinuxProcessTables(std::unique_ptr<ProcessSource> source);

  ~LinuxProcessTables() override;

  /// On a thread that ends with it. Takes a first look as well, so that arrays are as large as this machine
  /// needs them.
  void prepare() override;
  [[nodiscard]] std::unique_ptr<platform::ProcessTable> look() override;
  void rest() override;

  /// What a look reads, for those who want more than the interface tells; empty on failure.
  [[nodiscard]] std::shared_ptr<const ProcessRecords> records();

 private:
  /// The place of a look that nobody looks at any more, for the next one: its pages are there already.
  struct Spare {
    std::mutex mutex;
    std::unique_ptr<ProcessRecords> records;
  };
  /// Records in the spare place, or in a new one; it is the spare one again when the last holder lets go.
  std::shared_ptr<ProcessRecords> takePlace() const;

  /// What a new look sees; with the lock held.
  std::shared_ptr<const ProcessRecords> read();

  std::mutex mutex_;
  std::thread preparation_;
  std::unique_ptr<ProcessSource> source_;
  const std::shared_ptr<Spare> spare_ = std::make_shared<Spare>();
  std::shared_ptr<const ProcessRecords> last_ = std::make_shared<ProcessRecords>();
};

}  // namespace quorveld::linux_platform
