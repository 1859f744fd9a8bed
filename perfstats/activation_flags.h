#pragma once

#include <cstdint>

namespace quorveld {

/// The fields of an activation's flags word, by index. Fields 0 to 2 (at bits 18, 19 and 20) are never
/// written.
enum class ActivationFlag : uint32_t {
  startLatency = 3,    ///< bits 8 to 12, in units of 50 ms
  endLatency = 4,      ///< bits 13 to 17, in units of 50 ms
  otherProcesses = 5,  ///< bits 0 to 7: processes that the power log reports as one
};

/// ORs `value`, capped at the field's maximum, into its place in `flags`: bits already set stay. Any queue; a
/// word belongs to one activation. An unknown field changes nothing.
void insert_activation_flag(uint64_t value, ActivationFlag field, uint64_t& flags);

}  // namespace quorveld
