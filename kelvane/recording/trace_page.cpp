#include "kelvane/recording/trace_page.h"

#include <bit>
#include <cstring>

namespace kelvane {
namespace {

using Word = unsigned long;  // as wide as the kernel's

constexpr size_t kHeaderBytes = sizeof(uint64_t) + sizeof(Word);
constexpr Word kLengthMask = (Word{1} << 27) - 1;
constexpr Word kMissedEvents = Word{1} << 31;
constexpr Word kMissedCountStored = Word{1} << 30;

constexpr uint32_t kLengthInBytes = 0;  // 1 to 28: the length in units of four
constexpr uint32_t kPadding = 29;
constexpr uint32_t kTimeExtend = 30;
constexpr uint32_t kTimeStamp = 31;
constexpr unsigned kKindBits = 5;
constexpr unsigned kDeltaBits = 27;
/// An absolute time lacks the bits above, which are those of the time before.
constexpr uint64_t kTimeStampMask = (uint64_t{1} << (kDeltaBits + 32)) - 1;

template <typename Number>
Number load(std::span<const uint8_t> bytes) {
  Number number{};
  std::memcpy(&number, bytes.data(), sizeof number);
  return number;
}

}  // namespace

TracePage::TracePage(std::span<const uint8_t> page) {
  if (page.size() < kHeaderBytes) {
    broken_ = true;
    return;
  }
  firstNs_ = atNs_ = load<uint64_t>(page);
  const auto word = load<Word>(page.subspan(sizeof(uint64_t)));
  const size_t length = word & kLengthMask;
  const std::span<const uint8_t> body = page.subspan(kHeaderBytes);
  const bool counted = (word & kMissedCountStored) != 0;
  if (length + (counted ? sizeof(Word) : 0) > body.size()) {
    broken_ = true;
    return;
  }
  rest_ = body.first(length);
  if (word & kMissedEvents) missed_ = counted ? load<Word>(body.subspan(length)) : 1;
}

std::optional<TraceEvent> TracePage::stop(bool broken) {
  rest_ = {};
  broken_ = broken_ || broken;
  return std::nullopt;
}

std::optional<std::span<const uint8_t>> TracePage::take(size_t bytes) {
  if (bytes > rest_.size()) return std::nullopt;
  const std::span<const uint8_t> taken = rest_.first(bytes);
  rest_ = rest_.subspan(bytes);
  return taken;
}

std::optional<TraceEvent> TracePage::next() {
  constexpr bool kLittle = std::endian::native == std::endian::little;
  while (!rest_.empty()) {
    const auto headBytes = take(sizeof(uint32_t));
    if (!headBytes) return stop(true);
    const auto head = load<uint32_t>(*headBytes);
    const uint32_t kind = kLittle ? head & ((1u << kKindBits) - 1) : head >> kDeltaBits;
    const uint64_t delta = kLittle ? head >> kKindBits : head & ((1u << kDeltaBits) - 1);
    if (kind == kPadding && delta == 0) return stop(false);  // to the end of the page
    if (kind > kLengthInBytes && kind < kPadding) {
      atNs_ += delta;
      const auto bytes = take(size_t{kind} * 4);
      if (!bytes) return stop(true);
      return TraceEvent{atNs_, *bytes};
    }

    const auto secondBytes = take(sizeof(uint32_t));
    if (!secondBytes) return stop(true);
    const uint64_t second = load<uint32_t>(*secondBytes);
    if (kind == kTimeExtend) {
      atNs_ += (second << kDeltaBits) + delta;
      continue;
    }
    if (kind == kTimeStamp) {
      atNs_ = (atNs_ & ~kTimeStampMask) | ((second << kDeltaBits) + delta);
      continue;
    }
    // The length counts itself: of a long event, or of a discarded one.
    if (second < sizeof(uint32_t)) return stop(true);
    atNs_ += delta;
    const auto bytes = take((second - sizeof(uint32_t) + 3) & ~size_t{3});
    if (!bytes) return stop(true);
    if (kind == kLengthInBytes) return TraceEvent{atNs_, *bytes};
  }
  return std::nullopt;
}

}  // namespace kelvane
