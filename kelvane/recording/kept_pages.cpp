#include "kelvane/recording/kept_pages.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace kelvane {

KeptPages::KeptPages(int folder, unsigned cpu, size_t pageBytes)
    : file_(openat(folder, ("cpu" + std::to_string(cpu)).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                   0600)),
      pageBytes_(pageBytes) {
  struct stat status {};
  if (!file_ || fstat(file_.get(), &status) < 0) return;
  end_ = static_cast<size_t>(status.st_size) / pageBytes_;
  const auto whole = static_cast<off_t>(end_ * pageBytes_);
  if (whole != status.st_size && ftruncate(file_.get(), whole) < 0) file_ = UniqueFd();
  const off_t data = lseek(file_.get(), 0, SEEK_DATA);  // ENXIO: a hole only, or empty
  first_ = data < 0 ? end_ : std::min(static_cast<size_t>(data) / pageBytes_, end_);
}

bool KeptPages::append(std::span<const uint8_t> pages) {
  auto at = static_cast<off_t>(end_ * pageBytes_);
  const size_t count = pages.size() / pageBytes_;
  while (!pages.empty()) {
    const ssize_t written = pwrite(file_.get(), pages.data(), pages.size(), at);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    at += written;
    pages = pages.subspan(static_cast<size_t>(written));
  }
  end_ += count;
  return true;
}

bool KeptPages::read(size_t index, std::span<uint8_t> page) const {
  ssize_t got;
  do got = pread(file_.get(), page.data(), pageBytes_, static_cast<off_t>(index * pageBytes_));
  while (got < 0 && errno == EINTR);
  return got == static_cast<ssize_t>(pageBytes_);
}

uint64_t KeptPages::timeOf(size_t index) const {
  uint64_t time = 0;  // a page begins with it
  const auto at = static_cast<off_t>(index * pageBytes_);
  return pread(file_.get(), &time, sizeof time, at) == sizeof time ? time : 0;
}

void KeptPages::prune(uint64_t beforeNs, size_t maxPages) {
  size_t low = end_ - first_ > maxPages ? end_ - maxPages : first_;
  size_t high = end_;
  // The last page that begins before the time still reaches into it.
  while (low + 1 < high) {
    const size_t middle = low + (high - low) / 2;
    if (timeOf(middle) < beforeNs) {
      low = middle;
    } else {
      high = middle;
    }
  }
  dropBefore(low);
}

void KeptPages::dropBefore(size_t index) {
  if (index <= first_) return;
  const auto length = static_cast<off_t>(index * pageBytes_);
  if (fallocate(file_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, length) < 0) {
    // A file system without holes: the past is given up rather than let grow.
    if (ftruncate(file_.get(), 0) == 0) first_ = end_ = 0;
    return;
  }
  first_ = index;
}

}  // namespace kelvane
