#pragma once

#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/recording/kept_pages.h"

namespace kelvane {

/// Opens what there is of the CPUs of a tracefs instance and moves what their buffers hold to their kept
/// pages, while recording goes on.
class PageDrain {
 public:
  enum class Result { whole, late, notKept, unreadable };

  /// The instance's and RecorderFolder's directories.
  PageDrain(int instance, int folder, size_t pageBytes);

  /// Reads each CPU's buffer once round. On `notKept` and `unreadable` errno says why; pages may be lost
  /// then.
  Result run(const Deadline& deadline, uint64_t nowNs);

  struct Cpu {
    unsigned number;
    KeptPages pages;
  };
  const std::vector<Cpu>& cpus() const { return cpus_; }

 private:
  Result drain(int pipe, KeptPages& pages, size_t maxPages, const Deadline& deadline);

  int instance_;
  int folder_;
  size_t pageBytes_;
  std::vector<uint8_t> buffer_;
  std::vector<Cpu> cpus_;
};

/// The size of the instance's buffer pages; 0 if it isn't told or is beyond kMaxTracePageBytes.
size_t readPageBytes(int instance);

/// The size of a CPU's buffer, in KB; 0 if it isn't told.
size_t readBufferKb(int instance, unsigned cpu);

}  // namespace kelvane
