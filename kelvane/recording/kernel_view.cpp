#include "kelvane/recording/kernel_view.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {
namespace {

/// The inode of the initial PID namespace (include/uapi/linux/nsfs.h).
constexpr ino_t kInitialPidNamespace = 0xEFFFFFFC;

}  // namespace

uint64_t kernelNs() {
  return monotonicNs() - static_cast<uint64_t>(clockOffsetNs());
}

int64_t clockOffsetNs() {
  // A kernel without time namespaces has no such file.
  const FileText offsets = readFileAt(AT_FDCWD, "/proc/self/timens_offsets", kMaxProcFileBytes);
  return parseClockOffset(offsets.text, "monotonic");
}

std::string foreignThreads() {
  struct stat status {};
  const bool isInitial = stat("/proc/self/ns/pid", &status) == 0 && status.st_ino == kInitialPidNamespace;
  return isInitial ? ""
                   : "it records the thread ids of the initial PID namespace, this process is in another";
}

}  // namespace kelvane
