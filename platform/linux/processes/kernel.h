#pragma once

#include "platform/kernel.h"

namespace quorveld::linux_platform {

/// Single questions to the kernel, answered from proc(5).
class LinuxKernel final : public platform::Kernel {
 public:
  std::optional<std::string> executablePath(int32_t pid) override;
  std::optional<std::string> processName(int32_t pid) override;
};

}  // namespace quorveld::linux_platform
