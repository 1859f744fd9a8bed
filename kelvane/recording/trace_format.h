#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

/// The kernel's `format` texts below tracefs' events/ as values. Pure: a broken text gives nothing.
namespace kelvane {

/// Where a member lies in an event's bytes.
struct FormatField {
  uint32_t offset = 0;
  uint32_t size = 0;  // 0: a string of unknown length at the event's end
};

/// The event's number, by which its bytes begin.
std::optional<uint16_t> parseFormatId(std::string_view text);

/// The member called `name`.
std::optional<FormatField> parseFormatField(std::string_view text, std::string_view name);

/// Letters of a task's state by bit, as sched_switch's own print format names them; 0 where it names none.
///
/// The bits have moved between kernels, so they are never assumed.
using StateLetters = std::array<char, 32>;
StateLetters parseStateLetters(std::string_view switchFormat);

/// The letter of proc(5) for the state in which a thread left the CPU; 'R' when it would have run on: bits
/// without a letter say that it was preempted.
char switchState(uint64_t prevState, const StateLetters& letters);

/// What a block request does, from the kernel's `rwbs`: 'R', 'W', 'F' a flush alone, 'D' discard or erase,
/// '?'.
char blockOperation(std::string_view rwbs);

}  // namespace kelvane
