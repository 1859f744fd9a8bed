#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace plist {

/// Whether `bytes` start as a binary property list does, of whichever version.
bool isBinaryPropertyList(std::string_view bytes);

/// The dictionary of a binary property list of version 00 as an XML property list:
///
///     ┌────────────┬──────────────────┬──────────────────────────────┬────────────────────────────────────────┐
///     │ "bplist00" │ objects          │ where each object begins     │ trailer, 32 bytes: 6 unused, │ │ │ a
///     byte of kind   │ (big-endian, as all numbers) │ bytes of such a place, of a reference, │ │ │ and
///     length, data │                              │ count of objects, which is outermost,  │ │            │
///     │                              │ where the places begin (8 bytes each)  │
///     └────────────┴──────────────────┴──────────────────────────────┴────────────────────────────────────────┘
///
/// A dictionary, an array and a set hold references: numbers of objects. What XML has no word for: a set
/// becomes an array, a UID a dictionary with the number under "UID"; a null and its key are left out. Dates
/// are to the second.
///
/// Nothing, and "byte 120: the reason" in `error`, when a part of it lies outside, values nest deeper than
/// kMaxBinaryDepth or within themselves, XML can't hold one (a text with a NUL, an integer beyond 64 bits),
/// or the XML is longer than kMaxBytes.
std::optional<std::string> xmlOfBinary(std::string_view bytes, std::string& error);

}  // namespace plist
