#pragma once

#include <cstdint>
#include <string>

namespace quorveld {

/// The name of the assertion of bit `bit` as it stands in a report, quotes included.
std::string assertionName(unsigned bit);

/// The name of a tag, or of a counter, of wired kernel memory.
std::string wiredTagName(uint64_t tag);
std::string wiredCounterName(uint64_t counter);

}  // namespace quorveld
