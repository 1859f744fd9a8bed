#include "kelvane/recording/cpu_history.h"

#include <algorithm>

#include "kelvane/recording/trace_page.h"

namespace kelvane {

CpuHistory::CpuHistory(const PageDrain::Cpu& cpu, size_t pageBytes, uint64_t startedNs, uint64_t toNs)
    : cpu_(cpu), next_(cpu.pages.end()), startedNs_(startedNs), coveredFromNs_(toNs), bytes_(pageBytes) {
  loadNext();
}

std::vector<RecordedEvent> CpuHistory::releaseEvents() {
  std::reverse(events_.begin(), events_.end());
  return std::move(events_);
}

void CpuHistory::loadNext() {
  has_ = false;
  if (next_ == cpu_.pages.first()) {
    // Nothing has been cut off: before its first event nothing happened on this CPU.
    if (next_ == 0) coveredFromNs_ = std::min(coveredFromNs_, startedNs_);
    return;
  }
  --next_;
  if (!cpu_.pages.read(next_, bytes_)) return;
  const TracePage page(bytes_);
  // A page of another time is none of the kernel's doing: the file is broken here.
  pageNs_ = page.firstNs();
  has_ = !page.isBroken() && pageNs_ != 0 && pageNs_ <= newerPageNs_;
}

size_t CpuHistory::take(EventDecoder& decoder, uint64_t fromNs, uint64_t toNs) {
  TracePage page(bytes_);
  page_.clear();
  uint64_t lastNs = page.firstNs();
  while (auto event = page.next()) {
    if (event->atNs < lastNs || event->atNs > newerPageNs_) break;
    lastNs = event->atNs;
    if (lastNs < fromNs || lastNs > toNs) continue;
    if (auto decoded = decoder.decode(event->bytes, lastNs, static_cast<uint16_t>(cpu_.number))) {
      page_.push_back(*decoded);
    }
  }
  events_.insert(events_.end(), page_.rbegin(), page_.rend());
  if (page.isBroken()) {
    has_ = false;
    return page_.size();
  }
  newerPageNs_ = page.firstNs();
  coveredFromNs_ = std::min(coveredFromNs_, newerPageNs_);
  if (newerPageNs_ <= fromNs) {
    has_ = false;
  } else if (page.missedBefore() > 0) {
    lost_ += page.missedBefore();
    has_ = false;
  } else {
    loadNext();
  }
  return page_.size();
}

}  // namespace kelvane
