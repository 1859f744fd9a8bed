// A ring that the kernel samples a thread into, as if the kernel lied, too; what is kept of it, and the
// division of time by samples that may tell of any.
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

#include "kelvane/base/limits.h"
#include "kelvane/sampling/sample_shares.h"
#include "kelvane/sampling/sample_store.h"
#include "kelvane/sampling/sampled_thread.h"

namespace {

constexpr uint64_t kSwitchId = 7;
constexpr uint64_t kWindowNs = uint64_t{1} << 32;

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  uint64_t head = 0;
  if (size < sizeof head + 64) return 0;
  std::memcpy(&head, data, sizeof head);
  head &= ~uint64_t{7};  // the kernel's own
  const auto ring = std::as_bytes(std::span(data + sizeof head, std::bit_floor(size - sizeof head)));
  kelvane::SampleStore store;
  std::vector<kelvane::SampleTimes> times;
  for (const kelvane::RecordBytes& record : kelvane::recordsSince(ring, head, 0)) {
    const auto sample = kelvane::parseSample(record, kSwitchId);
    require(!sample || sample->stack.bytes.size() < record.size());
    if (sample) times.push_back(sample->times);
    store.add(record, kSwitchId);
    require(store.kept().size() <= kelvane::kMaxKeptSamples);
  }
  const kelvane::KeptSamples kept =
      kelvane::readKeptSamples(std::string(reinterpret_cast<const char*>(data), size));
  const kelvane::ClockMark whole[] = {{}, {kWindowNs, head, head, head, head}};
  for (const auto marks : {std::span<const kelvane::ClockMark>(whole), std::span(kept.marks)}) {
    uint64_t atNs = 0;
    for (const kelvane::Stretch& stretch : kelvane::divideTime(times, marks, 0, kWindowNs).stretches) {
      require(stretch.fromNs >= atNs && stretch.toNs > stretch.fromNs && stretch.toNs <= kWindowNs);
      require(stretch.onCpuNs + stretch.preemptedNs + stretch.waitedNs + stretch.wokenNs ==
              stretch.toNs - stretch.fromNs);
      atNs = stretch.toNs;
    }
  }
  return 0;
}
