#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorveld::platform {

/// The system version record; a part that the system doesn't state is absent.
struct OSVersion {
  std::optional<std::string> productName;
  std::optional<std::string> productVersion;
  std::optional<std::string> buildVersion;
};

/// What this device is. From any thread.
class Device {
 public:
  virtual ~Device() = default;

  /// The device-capability query; an unknown name answers false.
  virtual bool capability(std::string_view name) = 0;

  virtual OSVersion osVersion() = 0;

  /// uname's machine field.
  virtual std::string machine() = 0;

  /// A uniformly random number in [0, bound); `bound` is at least 1.
  virtual uint32_t uniformRandom(uint32_t bound) = 0;
};

}  // namespace quorveld::platform
