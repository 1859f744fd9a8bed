#include "platform/linux/processes/process_table.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <system_error>
#include <utility>

#include "platform/linux/base/linux_log.h"

namespace quorveld::linux_platform {

namespace {

class LinuxProcessTable final : public platform::ProcessTable {
 public:
  explicit LinuxProcessTable(std::shared_ptr<const ProcessRecords> records) : records_(std::move(records)) {}

  int listBytes() override { return static_cast<int>(records_->size() * sizeof(int32_t)); }

  int list(int32_t* pids, int sizeBytes) override {
    if (sizeBytes < 0) return 0;
    const size_t count = std::min(static_cast<size_t>(sizeBytes) / sizeof(int32_t), records_->size());
    for (size_t i = 0; i < count; ++i) pids[i] = (*records_)[i].sample.pid;
    return static_cast<int>(count * sizeof(int32_t));
  }

  int usage(int32_t pid, platform::rusage_info_v3* usage) override {
    const ProcessRecord* record = findRecord(*records_, pid, cursor_);
    if (!record) return ESRCH;
    setUsage(*usage, *record, pageSizeBytes_);
    return 0;
  }

  int name(int32_t pid, char* buffer, size_t sizeBytes) override {
    const ProcessRecord* record = findRecord(*records_, pid, cursor_);
    if (!record || record->sample.comm[0] == '\0' || sizeBytes == 0) {
      errno = !record ? ESRCH : sizeBytes == 0 ? EINVAL : ENODATA;
      return 0;
    }
    const size_t length = std::min(strnlen(record->sample.comm, kSampleCommBytes), sizeBytes - 1);
    std::memcpy(buffer, record->sample.comm, length);
    buffer[length] = '\0';
    return static_cast<int>(length);
  }

 private:
  const std::shared_ptr<const ProcessRecords> records_;
  const uint64_t pageSizeBytes_ = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  size_t cursor_ = 0;
};

/// The fastest source that there is, logged with what is missed and what that costs (bench/README.md); null
/// when not even /proc can be read.
std::unique_ptr<ProcessSource> openBestSource() {
  std::string why;
  auto source = openBpfSource(BpfPass::taskWalk, why);
  if (source) {
    logDefault("Process table: read through %s", source->name());
    return source;
  }
  std::string reason;
  source = openBpfSource(BpfPass::taskIterator, reason);
  if (source) {
    logDefault("Process table: read through %s, half as fast as the task walk (%s)", source->name(),
               why.c_str());
    return source;
  }
  if (reason != why) why += "; " + reason;
  source = openProcfsSource(reason);
  if (source) {
    logDefault("Process table: read through %s, about 40 times slower than BPF (%s)", source->name(),
               why.c_str());
  } else {
    logDefault("Process table: can't be read, snapshots will be without processes (%s; %s)", why.c_str(),
               reason.c_str());
  }
  return source;
}

}  // namespace

LinuxProcessTables::LinuxProcessTables(std::unique_ptr<ProcessSource> source) : source_(std::move(source)) {
  // Once it has given such an array back, the allocator would keep the next ones. Those of a look at
  // thousands of processes are the daemon's largest; new pages for them cost less than holding them all the
  // time.
  constexpr int kLargeArrayBytes = 1 << 20;
  mallopt(M_MMAP_THRESHOLD, kLargeArrayBytes);
  // Smaller ones stay for the next look: setting the one makes the allocator give all else back at once.
  mallopt(M_TRIM_THRESHOLD, 2 * kLargeArrayBytes);
}

LinuxProcessTables::~LinuxProcessTables() {
  if (preparation_.joinable()) preparation_.join();
}

void LinuxProcessTables::prepare() {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock || source_ || preparation_.joinable()) return;  // under way, or done
  try {
    preparation_ = std::thread([this] {
      const std::lock_guard alone(mutex_);
      if (!source_) (void)read();
    });
  } catch (const std::system_error& error) {
    logDefault("Process table: no thread to prepare on, the first look will take longer (%s)", error.what());
  }
}

/// What was freed between two blocks in use stays the allocator's for good, unless it is told.
void LinuxProcessTables::rest() {
  if (const std::unique_lock lock(mutex_, std::try_to_lock); lock && source_) source_->rest();
  {
    const std::lock_guard lock(spare_->mutex);
    spare_->records.reset();
  }
  malloc_trim(0);
}

std::shared_ptr<ProcessRecords> LinuxProcessTables::takePlace() const {
  std::unique_ptr<ProcessRecords> records;
  {
    const std::lock_guard lock(spare_->mutex);
    records = std::move(spare_->records);
  }
  if (!records) records = std::make_unique<ProcessRecords>();
  const auto giveBack = [spare = spare_](ProcessRecords* unused) {
    std::unique_ptr<ProcessRecords> place(unused);
    const std::lock_guard lock(spare->mutex);
    spare->records.swap(place);
  };
  return {records.release(), giveBack};
}

std::unique_ptr<platform::ProcessTable> LinuxProcessTables::look() {
  return std::make_unique<LinuxProcessTable>(records());
}

std::shared_ptr<const ProcessRecords> LinuxProcessTables::records() {
  const std::lock_guard lock(mutex_);
  return read();
}

std::shared_ptr<const ProcessRecords> LinuxProcessTables::read() {
  if (!source_) source_ = openBestSource();
  const auto samples = source_ ? source_->read(*last_) : std::span<const process_sample>();
  // A pass that failed is no news of anybody: what was known stays, for the next one to go on from.
  if (samples.empty()) return std::make_shared<ProcessRecords>();
  const std::shared_ptr<ProcessRecords> records = takePlace();
  makeRecords(*records, samples, *last_);
  last_ = records;
  return last_;
}

}  // namespace quorveld::linux_platform
