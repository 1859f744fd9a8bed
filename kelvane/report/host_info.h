#pragma once

#include <string>

namespace kelvane {

/// The machine that a report was made on; a text that can't be had is empty.
struct HostInfo {
  std::string kernel;   // release and version, as uname(2) says
  std::string machine;  // architecture
  std::string system;   // os-release(5)
  long cpus = 0;        // online
};

HostInfo readHostInfo();

}  // namespace kelvane
