#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/report/json_access.h"

namespace quorvelctl {

struct ReportFrame {
  std::string name;    ///< a function, or module+offset, or an address
  std::string module;  ///< path; empty when no file was mapped there
  std::string buildId;
  uint64_t offset = 0;  ///< in the module's own numbering

  /// "libc.so.6+0x8612b"; empty when no file was mapped there.
  std::string place() const;
};

/// One entry of a report's stack frames.
ReportFrame reportFrame(const Json& frame);

/// The name of the frame `id` if it is the kernel's; else empty.
std::string kernelFrame(const Json& frames, const std::string& id);

/// The user's frames from the innermost outwards, starting at the frame `id`: at most so many. Frames may
/// name each other as parents in a circle.
std::vector<ReportFrame> userStack(const Json& frames, std::string id, size_t most);

}  // namespace quorvelctl
