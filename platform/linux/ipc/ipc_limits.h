#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace quorveld::linux_platform {

// What clients can make this process hold or do. At the worst kMaxPeers * kMaxMessageBytes (32 MiB) of
// half-sent messages and kMaxPeers * (1 + kMaxDescriptors) descriptors; nothing is ever queued towards a
// client.

/// Connections at a time, in all and of one user. Beyond them a connection is accepted and closed at once.
inline constexpr size_t kMaxPeers = 2048;
inline constexpr size_t kMaxPeersPerUser = 1024;

/// Connections taken before the loop looks at others again.
inline constexpr int kMaxAcceptsPerTurn = 16;

/// Between two lines about refused connections.
inline constexpr std::chrono::seconds kRefusalLogInterval{10};

/// How long accepting rests after it has failed: a descriptor table that is full stays readable and would
/// spin.
inline constexpr std::chrono::milliseconds kAcceptPause{1000};

/// From the connection to the end of its handshake, and how many bytes it may take.
inline constexpr std::chrono::seconds kHandshakeDeadline{30};
inline constexpr size_t kMaxHandshakeBytes = 4096;

/// One message, header included. The longest that a well-meaning client sends has some hundred bytes.
inline constexpr size_t kMaxMessageBytes = 16384;

/// Taken from one connection before the loop looks at others again: at the most some hundred messages.
inline constexpr size_t kReadBytesPerTurn = 16384;

/// Descriptors that one connection may have sent and no message claimed yet.
inline constexpr size_t kMaxDescriptors = 4;

/// Values nested in a value that is skipped.
inline constexpr int kMaxNesting = 32;

/// One shared-memory object; a hang region has 7 KB.
inline constexpr size_t kMaxSharedMemoryBytes = size_t{1} << 20;

/// Of each name that an odd message's description quotes.
inline constexpr size_t kMaxQuotedBytes = 64;

/// Descriptors that the process asks for: the clients' and ample room for its own.
inline constexpr size_t kWantedDescriptors = kMaxPeers * (1 + kMaxDescriptors) + 1024;

}  // namespace quorveld::linux_platform
