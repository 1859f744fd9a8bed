#pragma once

#include <cstddef>

namespace quorveld::linux_platform {

// What a client's bytes may make a reader hold.

inline constexpr size_t kMaxHandshakeBytes = 4096;

/// One message, header included. The longest that a well-meaning client sends has some hundred bytes.
inline constexpr size_t kMaxMessageBytes = 16384;

/// Taken from one connection before others are looked at again: at the most some hundred messages.
inline constexpr size_t kReadBytesPerTurn = 16384;

/// Descriptors that one connection may have sent and no message claimed yet.
inline constexpr size_t kMaxDescriptors = 4;

/// One shared-memory object; a hang region has 7 KB.
inline constexpr size_t kMaxSharedMemoryBytes = size_t{1} << 20;

/// Values nested in a value that is skipped.
inline constexpr int kMaxNesting = 32;

/// Of each name that an odd message's description quotes.
inline constexpr size_t kMaxQuotedBytes = 64;

}  // namespace quorveld::linux_platform
