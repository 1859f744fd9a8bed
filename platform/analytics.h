#pragma once

#include <cstdint>
#include <string_view>

namespace quorveld::platform {

/// The process whose names a key holds, and its user. Root's without a pid is the daemon's own; another
/// user's is that user's, since the pid may be what a client announced. The names again, each on its own, for
/// services that tell keys apart by them: empty where a key holds none.
struct KeyOwner {
  uint32_t uid = 0;
  int32_t pid = 0;
  std::string_view hang = {};
  std::string_view bundle = {};
  std::string_view process = {};
};

/// The analytics counter service. Calls return at once and never fail upwards; keys may hold a client's text,
/// and places for them are shared out among those clients. Work queue only.
class Analytics {
 public:
  virtual ~Analytics() = default;
  virtual void setScalar(std::string_view key, int64_t value) = 0;
  virtual void addToScalar(std::string_view key, int64_t value, KeyOwner owner) = 0;
  virtual void pushDistribution(std::string_view key, double value, KeyOwner owner) = 0;
};

}  // namespace quorveld::platform
