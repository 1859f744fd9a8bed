#pragma once

#include <cstddef>

namespace quorveld {

// What a client can make large, and how large. Longer texts are cut off at a character's border, never
// refused.

/// A hang's or a bundle's name, in bytes.
inline constexpr size_t kMaxNameBytes = 512;

/// The text of a log line, in bytes: one name of such a length and what is said of it.
inline constexpr size_t kMaxLogTextBytes = 1024;

/// One component of a report's file name, in bytes: two of them, a date and a suffix fit into the 255 of a
/// Linux name.
inline constexpr size_t kMaxFileNameComponentBytes = 96;

/// On-screen messages that wait for being cleared.
inline constexpr size_t kMaxPendingHUDClears = 64;

// Activation messages that wait for the activation queue, activations in flight, 60-second timeouts that have
// yet to fire, and finished activations that wait for their report: as many as may be in flight, so that
// those that end together are all reported. Of each, a quarter is root's own.
inline constexpr size_t kMaxWaitingActivationSteps = 1024;
inline constexpr size_t kMaxActivationsInFlight = 1024;
inline constexpr size_t kMaxPendingActivationTimeouts = 4096;
inline constexpr size_t kMaxWaitingActivationReports = kMaxActivationsInFlight;

/// Launches of one user that are sampled; the trace library gives no user more places.
inline constexpr size_t kMaxSampledLaunchesOfUser = 4;

/// What the snapshots of activations in flight, and of those that wait for their report, take, in bytes;
/// shared out in the same way. A snapshot of a thousand processes is some ten kilobytes, since they have most
/// in common.
inline constexpr size_t kMaxActivationBytes = size_t{32} << 20;

}  // namespace quorveld
