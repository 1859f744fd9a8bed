#pragma once

#include <cstdint>
#include <string_view>

namespace quorveld::platform {

/// The analytics counter service. Calls return at once and never fail upwards; keys may hold a client's text.
/// Work queue only.
class Analytics {
 public:
  virtual ~Analytics() = default;
  virtual void setScalar(std::string_view key, int64_t value) = 0;
  virtual void addToScalar(std::string_view key, int64_t value) = 0;
  virtual void pushDistribution(std::string_view key, double value) = 0;
};

}  // namespace quorveld::platform
