#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace quorveld::linux_platform {

// What clients can make the daemon hold or do. Half-sent messages wait in the kernel, nothing is ever queued
// towards a client, and an open connection costs the daemon two descriptors: its socket and its process.

/// Connections at a time, those that are root's alone included; fewer where the process may not have the
/// descriptors. How they are shared out: client_shares.h.
inline constexpr size_t kMaxPeers = 4096;
inline constexpr size_t kPeersOfRootAlone = 64;
inline constexpr size_t kDescriptorsOfPeer = 2;
/// Descriptors for everything else that the daemon does.
inline constexpr size_t kReservedDescriptors = 128;

/// Sockets of refused clients that may wait to be closed, and how long accepting rests when there are more.
inline constexpr size_t kMaxRefusedWaiting = 256;
inline constexpr std::chrono::milliseconds kRefusalsPause{10};

/// Users with connections at a time, root not counted. With more receivers than these have, those that wait
/// for a user's next client go at once: whoever owns a range of users could start one after the other.
inline constexpr size_t kMaxUsers = 64;

/// Connections taken before the loop looks at others again.
inline constexpr int kMaxAcceptsPerTurn = 16;

/// How late these pauses may end. What sd-event takes when it isn't told is a quarter of a second.
inline constexpr uint64_t kPauseAccuracyUs = 1000;

/// Between two lines about refused connections.
inline constexpr std::chrono::seconds kRefusalLogInterval{10};

/// How long accepting rests after it has failed: a descriptor table that is full stays readable and would
/// spin.
inline constexpr std::chrono::milliseconds kAcceptPause{1000};

/// How long a receiver may be at one connection, held up by what the client sent.
inline constexpr std::chrono::milliseconds kReceiverPatience{100};
/// How long one that was ended may take to end, before it counts as left behind.
inline constexpr std::chrono::milliseconds kReceiverEndPatience{20};
/// Receivers of one user that were ended and have not: until one of them has, that user isn't served.
inline constexpr size_t kMaxReceiversLeftBehind = 4;
/// And of all: from then on a user may have one, and who has none yet isn't let in, root excepted. The unit's
/// TasksMax has room for these, for each user's receiver and for all looks at processes.
inline constexpr size_t kMaxReceiversLeftBehindOfAll = 64;
/// How long the daemon's end may wait until a user's receiver has taken over what is to be closed.
inline constexpr std::chrono::milliseconds kReleasePatience{500};
/// How long a receiver without connections waits for the next one.
inline constexpr std::chrono::seconds kIdleReceiverStays{10};
/// After so many receivers of a user that ended by themselves, and after one that could not be started, the
/// next one waits.
inline constexpr int kReceiverEndsWithoutPause = 3;
inline constexpr std::chrono::milliseconds kReceiverPause{1000};

/// Descriptors that the process asks for.
inline constexpr size_t kWantedDescriptors = kMaxPeers * kDescriptorsOfPeer + 1024;

}  // namespace quorveld::linux_platform
