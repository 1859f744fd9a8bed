#pragma once

#include <string>

namespace kelvane {

/// Something that the report lacks, and the reason: both are texts for people.
struct Omission {
  std::string what;
  std::string why;
};

}  // namespace kelvane
