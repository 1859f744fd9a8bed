#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform/analytics.h"

namespace quorveld::linux_platform {

/// How many keys each of counters and distributions may have; what comes under further ones is put under
/// "(other)". Keys hold clients' texts.
inline constexpr size_t kMaxAnalyticsKeys = 256;

/// A key that was not used for so long gives its place to another one.
inline constexpr std::chrono::hours kAnalyticsKeyIdle(1);

/// Which keys have a place of their own, and for whom.
///
/// While there are places, whoever comes gets one. Then a place changes hands only where that makes the
/// shares more alike: from the user who has most to one who has less by two or more, and in the same way
/// among one user's processes; or when nobody has used it for kAnalyticsKeyIdle. So nobody's names take what
/// others have, and a flood of names comes to an end under "(other)". The daemon's own keys keep their
/// places.
class AnalyticsKeys {
 public:
  using Time = std::chrono::steady_clock::time_point;

  struct Verdict {
    bool admitted;
    std::string givenUp;  ///< the key whose place it got; empty: none
  };
  Verdict admit(std::string_view key, platform::KeyOwner owner, Time now);

 private:
  struct Use {
    uint32_t uid;
    int32_t pid;
    Time last;

    bool isDaemons() const { return uid == 0 && pid == 0; }
  };
  using Keys = std::map<std::string, Use, std::less<>>;

  Keys::iterator longestUnused(const std::function<bool(const Use&)>& among);
  Keys::iterator placeFor(platform::KeyOwner owner, Time now);

  Keys keys_;
};

}  // namespace quorveld::linux_platform
