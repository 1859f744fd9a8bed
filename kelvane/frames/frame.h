#pragma once

#include <cstdint>
#include <string>

namespace kelvane {

/// A place in the code of a process whose modules are listed.
struct Frame {
  uint64_t address = 0;  // of the instruction; a return address is lowered by one, into its call
  int32_t module = -1;   // index into the modules; -1: no file is mapped there
  uint64_t offset = 0;   // in the module's own addresses, as addr2line(1) takes them
  std::string name;      // empty: not asked for, or not known
};

}  // namespace kelvane
