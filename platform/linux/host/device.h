#pragma once

#include "platform/device.h"

namespace quorveld::linux_platform {

/// What this device is, from the environment, os-release(5), uname(2) and getrandom(2).
class LinuxDevice final : public platform::Device {
 public:
  /// "InternalBuild" is QUORVELD_INTERNAL_BUILD ("1", "true" or "yes") where that is set, else whether
  /// os-release says VARIANT_ID=internal.
  bool capability(std::string_view name) override;

  platform::OSVersion osVersion() override;
  std::string machine() override;
  uint32_t uniformRandom(uint32_t bound) override;
};

}  // namespace quorveld::linux_platform
