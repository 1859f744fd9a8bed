#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quorveld::platform {

/// What a kernel's path query fills at the most, in bytes, the final NUL included.
inline constexpr size_t kMaxPathBytes = 4096;

/// Single questions to the kernel. From any thread.
class Kernel {
 public:
  virtual ~Kernel() = default;

  /// The process's executable path, raw bytes, at most kMaxPathBytes; nothing when there is no such process
  /// or no leave.
  virtual std::optional<std::string> executablePath(int32_t pid) = 0;

  /// The process's short name, at most 31 bytes; nothing when there is no such process. On Linux there is
  /// none of pid 0.
  virtual std::optional<std::string> processName(int32_t pid) = 0;
};

}  // namespace quorveld::platform
