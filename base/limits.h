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

// Activation messages that wait for the activation queue, activations in flight (each holds a snapshot of
// every process), 60-second timeouts that have yet to fire, and finished activations that wait for their
// report; of each, a quarter is root's own.
inline constexpr size_t kMaxWaitingActivationSteps = 1024;
inline constexpr size_t kMaxActivationsInFlight = 64;
inline constexpr size_t kMaxPendingActivationTimeouts = 4096;
inline constexpr size_t kMaxWaitingActivationReports = 32;

}  // namespace quorveld
