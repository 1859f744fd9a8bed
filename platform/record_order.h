#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace quorveld::platform {

/// What a record of an array is sorted by, and where it stands: records of hundreds of bytes are ordered by
/// these and moved once.
struct SortKey {
  uint32_t key;
  uint32_t index;
};

/// Radix sort by key, ascending. Equal keys keep their order; digits that all keys share cost no pass.
void sortByKey(std::span<SortKey> keys);

/// Copies a record in words of a vector register: compilers turn a plain assignment of hundreds of bytes into
/// a string instruction that takes three times as long.
template <typename Record>
void copyRecord(Record& to, const Record& from) {
  static_assert(std::is_trivially_copyable_v<Record>);
  constexpr size_t kWordBytes = 16, kTailBytes = sizeof(Record) % kWordBytes;
  auto* target = reinterpret_cast<std::byte*>(&to);
  const auto* source = reinterpret_cast<const std::byte*>(&from);
  for (size_t at = 0; at + kWordBytes <= sizeof(Record); at += kWordBytes)
    std::memcpy(target + at, source + at, kWordBytes);
  if constexpr (kTailBytes != 0)
    std::memcpy(target + sizeof(Record) - kTailBytes, source + sizeof(Record) - kTailBytes, kTailBytes);
}

}  // namespace quorveld::platform
