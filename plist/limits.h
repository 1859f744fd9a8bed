#pragma once

#include <cstddef>

namespace plist {

/// The longest property list that is read, in bytes: as it stands, and as XML in UTF-8. What is read can so
/// be written as XML and read again. Parsing takes some twenty times as much for a moment.
inline constexpr size_t kMaxBytes = size_t{1024} * 1024;

/// How deep a binary list's values may be nested, the outermost dictionary being the first level.
inline constexpr int kMaxBinaryDepth = 128;

/// The longest name of an encoding that is looked up.
inline constexpr size_t kMaxEncodingNameBytes = 40;

}  // namespace plist
