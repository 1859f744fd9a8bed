#include "kelvane/sampling/perf_records.h"

#include <linux/perf_event.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

// Registers come in the order of their numbers in <asm/perf_regs.h>, of which the mask names some.
#if defined(__x86_64__)
// AX BX CX DX SI DI BP SP IP, then R8 to R15; what is between is flags and segments.
constexpr uint64_t kUserRegisters = 0xFF'01FF;
constexpr std::array<uint8_t, 17> kDwarfNumbers = {0, 3, 2, 1, 4, 5, 6, 7, 16, 8, 9, 10, 11, 12, 13, 14, 15};
constexpr size_t kPcAt = 8;
constexpr size_t kSpAt = 7;
constexpr size_t kDwarfCount = 17;
#elif defined(__aarch64__)
// X0 to X30, SP, PC.
constexpr uint64_t kUserRegisters = 0x1'FFFF'FFFF;
constexpr std::array<uint8_t, 32> kDwarfNumbers = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10,
                                                   11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21,
                                                   22, 23, 24, 25, 26, 27, 28, 29, 30, 31};
constexpr size_t kPcAt = 32;
constexpr size_t kSpAt = 31;
constexpr size_t kDwarfCount = 32;
#else
constexpr uint64_t kUserRegisters = 0;  // how DWARF numbers them is not known here
constexpr std::array<uint8_t, 1> kDwarfNumbers = {0};
constexpr size_t kPcAt = 0;
constexpr size_t kSpAt = 0;
constexpr size_t kDwarfCount = 0;
#endif
constexpr auto kWordCount = static_cast<size_t>(__builtin_popcountll(kUserRegisters));

/// Takes the parts of a record, one after the other.
class RecordReader {
 public:
  explicit RecordReader(std::span<const std::byte> rest) : rest_(rest) {}

  template <typename Number>
  bool take(Number& number) {
    if (rest_.size() < sizeof number) return false;
    std::memcpy(&number, rest_.data(), sizeof number);
    rest_ = rest_.subspan(sizeof number);
    return true;
  }
  bool take(uint64_t count, std::vector<std::byte>& bytes) {
    if (rest_.size() < count) return false;
    bytes.assign(rest_.begin(), rest_.begin() + static_cast<ptrdiff_t>(count));
    rest_ = rest_.subspan(count);
    return true;
  }

 private:
  std::span<const std::byte> rest_;
};

std::optional<SampleTimes> takeTimes(RecordReader& in, uint64_t switchId) {
  perf_event_header header{};
  uint64_t id = 0;
  uint64_t counters = 0;
  SampleTimes times;
  if (!in.take(header) || header.type != PERF_RECORD_SAMPLE || !in.take(id) || !in.take(times.atNs) ||
      !in.take(counters) || counters != 2 || !in.take(times.cpuNs) || !in.take(times.switches))
    return std::nullopt;
  times.leftCpu = id == switchId;
  return times;
}

bool takeKernelChain(RecordReader& in, std::vector<uint64_t>& addresses) {
  uint64_t count = 0;
  if (!in.take(count)) return false;
  for (uint64_t word = 0; count > 0; count--) {
    if (!in.take(word)) return false;
    const bool isMarker = word >= static_cast<uint64_t>(PERF_CONTEXT_MAX);
    if (!isMarker && word != 0 && addresses.size() < kMaxKernelFrames) addresses.push_back(word);
  }
  return true;
}

bool takeRegisters(RecordReader& in, UnwindRegisters& registers) {
  uint64_t kind = 0;
  if (kWordCount == 0 || !in.take(kind) || kind != PERF_SAMPLE_REGS_ABI_64) return false;
  std::array<uint64_t, std::max<size_t>(kWordCount, 1)> words{};
  if (!in.take(words)) return false;
  for (size_t i = 0; i < kDwarfNumbers.size(); i++) registers.dwarf[kDwarfNumbers[i]] = words[i];
  registers.count = kDwarfCount;
  registers.pc = words[kPcAt];
  registers.sp = words[kSpAt];
  return true;
}

}  // namespace

uint64_t userRegistersMask() {
  return kUserRegisters;
}

std::vector<RecordBytes> recordsSince(std::span<const std::byte> ring, uint64_t head, uint64_t previous) {
  std::vector<RecordBytes> records;
  const uint64_t held = std::min<uint64_t>(previous - head, ring.size());
  // A record may go on at the ring's beginning, its header may not: it is 8 bytes at a multiple of 8.
  for (uint64_t at = 0; held - at >= sizeof(perf_event_header);) {
    perf_event_header header{};
    std::memcpy(&header, ring.data() + (head + at) % ring.size(), sizeof header);
    if (header.size < sizeof header || header.size % sizeof header != 0 || header.size > held - at) break;
    RecordBytes& record = records.emplace_back(header.size);
    const uint64_t start = (head + at) % ring.size();
    const size_t first = std::min<uint64_t>(header.size, ring.size() - start);
    std::memcpy(record.data(), ring.data() + start, first);
    std::memcpy(record.data() + first, ring.data(), header.size - first);
    at += header.size;
  }
  std::reverse(records.begin(), records.end());
  return records;
}

std::optional<SampleTimes> sampleTimes(std::span<const std::byte> record, uint64_t switchId) {
  RecordReader in(record);
  return takeTimes(in, switchId);
}

std::optional<CpuSwitch> cpuSwitch(std::span<const std::byte> record) {
  RecordReader in(record);
  perf_event_header header{};
  CpuSwitch change;
  if (!in.take(header) || header.type != PERF_RECORD_SWITCH || !in.take(change.atNs)) return std::nullopt;
  change.isLeave = (header.misc & PERF_RECORD_MISC_SWITCH_OUT) != 0;
  change.isPreemption = change.isLeave && (header.misc & PERF_RECORD_MISC_SWITCH_OUT_PREEMPT) != 0;
  return change;
}

std::optional<ProgramChange> programChange(std::span<const std::byte> record) {
  constexpr size_t kTimeAndId = 2 * sizeof(uint64_t);
  RecordReader in(record);
  perf_event_header header{};
  if (!in.take(header) || record.size() < sizeof header + kTimeAndId) return std::nullopt;
  const bool isExecution = header.type == PERF_RECORD_COMM && (header.misc & PERF_RECORD_MISC_COMM_EXEC) != 0;
  if (!isExecution && header.type != PERF_RECORD_EXIT) return std::nullopt;
  ProgramChange change{0, !isExecution};
  RecordReader(record.last(kTimeAndId)).take(change.atNs);
  return change;
}

std::optional<ThreadSample> parseSample(std::span<const std::byte> record, uint64_t switchId) {
  RecordReader in(record);
  ThreadSample sample;
  const auto times = takeTimes(in, switchId);
  uint64_t size = 0;
  if (!times) return std::nullopt;
  sample.times = *times;
  if (!takeKernelChain(in, sample.kernelAddresses) || !takeRegisters(in, sample.stack.registers) ||
      !in.take(size))
    return std::nullopt;
  sample.stack.atNs = times->atNs;
  sample.stack.base = sample.stack.registers.sp;
  uint64_t own = 0;
  if (size == 0) return sample;
  if (!in.take(size, sample.stack.bytes) || !in.take(own) || own > size) return std::nullopt;
  sample.stack.bytes.resize(own);
  return sample;
}

}  // namespace kelvane
