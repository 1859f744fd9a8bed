#pragma once

#include <cstddef>

namespace quorveld {

// What a client can make large, and how large. Longer texts are cut off at a character's border, never
// refused.

/// A hang's or a bundle's name, in bytes.
inline constexpr size_t kMaxNameBytes = 512;

/// One component of a report's file name, in bytes: three of them, a date and a suffix fit into the 255 of a
/// Linux name.
inline constexpr size_t kMaxFileNameComponentBytes = 96;

/// On-screen messages that wait for being cleared.
inline constexpr size_t kMaxPendingHUDClears = 64;

}  // namespace quorveld
