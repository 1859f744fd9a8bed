#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/linux/wire/message_limits.h"

namespace quorveld::linux_platform {

// What the daemon and a receiver say to each other, in packets of a SOCK_SEQPACKET pair.
//
// A receiver is where hostile bytes arrive: the daemon checks what comes from it as if a client had sent it.

enum class PacketKind : uint32_t {
  // from the daemon
  adopt = 1,  ///< serve this connection, whose socket comes along; `detail`: its HandshakeState
  release,    ///< forget this connection, and close it with the sockets that come along

  // from a receiver
  stage,     ///< `detail`: the connection's HandshakeState now
  messages,  ///< whole messages, as they came; `detail`: MemoryState, of a packet with one message
  ended,     ///< the connection has; `detail`: EndReason. Nothing about it follows.
};

/// What became of the memory that a message carries.
enum class MemoryState : uint32_t {
  none,       ///< it carries none
  attached,   ///< its descriptor comes along: a memfd that can't grow or shrink any more
  notMemory,  ///< its descriptor was something else, and is left out, as it is below
  unsealable,
  tooLarge,
  last = tooLarge,
};

enum class EndReason : uint32_t {
  closedByClient,
  readFailed,
  badHandshake,
  slowHandshake,
  repliesUnread,
  messageTooLong,
  messageMalformed,
  headerMalformed,
  bodyMalformed,
  descriptorsMissing,
  descriptorsUnclaimed,
  descriptorsTooMany,
  last = descriptorsTooMany,
};

inline constexpr uint32_t kNoConnection = UINT32_MAX;

struct PacketHeader {
  PacketKind kind;
  uint32_t
      connection;  ///< the daemon's number for it, never 0; kNoConnection: sockets alone are to be closed
  uint32_t detail;
};

/// The longest packet: a turn's messages, the first of which may have begun before it.
inline constexpr size_t kMaxPacketBytes = sizeof(PacketHeader) + kMaxMessageBytes + kReadBytesPerTurn;
/// Sockets that come along with one packet; the kernel takes 253 (SCM_MAX_FD).
inline constexpr size_t kMaxPacketDescriptors = 250;

/// The page that a receiver shares with the daemon.
struct ReceiverPage {
  /// The connection that it is at, in a step that somebody else may hold up; 0: at none.
  std::atomic<uint32_t> at;
};
static_assert(std::atomic<uint32_t>::is_always_lock_free);

// The descriptors that a receiver is started with.
inline constexpr int kReceiverChannel = 3;
inline constexpr int kReceiverPageFd = 4;
/// Runs while `at` is set, and is readable when that has lasted too long (timerfd_create(2)).
inline constexpr int kReceiverTimer = 5;
inline constexpr int kFirstFdNotInherited = 6;

}  // namespace quorveld::linux_platform
