#include "kelvane/capture/findings_area.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <string>

#include "kelvane/base/limits.h"
#include "kelvane/capture/findings.h"

namespace kelvane {

struct FindingsArea::Shared {
  std::atomic<pid_t> process{0};
  std::atomic<size_t> used{0};
  std::atomic<bool> full{false};
  std::array<char, kMaxFindingsBytes> bytes;
};

FindingsArea::FindingsArea() {
  // Its pages come when they are written.
  void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory != MAP_FAILED) shared_ = ::new (memory) Shared;
}

void FindingsArea::noteProcess(pid_t pid) {
  shared_->process = pid;
}

pid_t FindingsArea::notedProcess() const {
  return shared_->process;
}

void FindingsArea::publish(const ProcessCapture& part) {
  const std::string bytes = encodeFindings(part);
  const size_t used = shared_->used;
  if (bytes.size() > shared_->bytes.size() - used) shared_->full = true;
  if (shared_->full) return;
  std::memcpy(shared_->bytes.data() + used, bytes.data(), bytes.size());
  shared_->used = used + bytes.size();
}

bool FindingsArea::addTo(ProcessCapture& whole) const {
  // Whoever shares this may write it at any time: a copy stays as it is.
  const size_t used = std::min<size_t>(shared_->used, shared_->bytes.size());
  const std::string bytes(shared_->bytes.data(), used);
  return addFindings(bytes, whole) && !shared_->full;
}

void FindingsArea::unmap() {
  if (shared_) munmap(shared_, sizeof(Shared));
  shared_ = nullptr;
}

}  // namespace kelvane
