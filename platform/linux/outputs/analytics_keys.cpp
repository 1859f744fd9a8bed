#include "platform/linux/outputs/analytics_keys.h"

#include <algorithm>
#include <utility>

namespace quorveld::linux_platform {

namespace {

using platform::KeyOwner;

/// Who has most of what is counted, if that is more than `own` by so much that a place that changes hands
/// makes the two more alike.
template <typename Id>
const Id* richer(const std::map<Id, size_t>& counts, size_t own) {
  const auto most = std::max_element(counts.begin(), counts.end(), [](const auto& left, const auto& right) {
    return left.second < right.second;
  });
  return most != counts.end() && most->second >= own + 2 ? &most->first : nullptr;
}

}  // namespace

AnalyticsKeys::Keys::iterator AnalyticsKeys::longestUnused(const std::function<bool(const Use&)>& among) {
  auto oldest = keys_.end();
  for (auto entry = keys_.begin(); entry != keys_.end(); ++entry) {
    if (entry->second.isDaemons() || !among(entry->second)) continue;
    if (oldest == keys_.end() || entry->second.last < oldest->second.last) oldest = entry;
  }
  return oldest;
}

/// The key that is to make room for one of `owner`'s; the end when none is.
AnalyticsKeys::Keys::iterator AnalyticsKeys::placeFor(KeyOwner owner, Time now) {
  std::map<uint32_t, size_t> ofUsers;
  for (const auto& [key, use] : keys_) ofUsers[use.uid] += use.isDaemons() ? 0 : 1;
  const uint32_t* const user = richer(ofUsers, ofUsers[owner.uid]);
  const uint32_t from = user ? *user : owner.uid;

  std::map<int32_t, size_t> ofProcesses;
  for (const auto& [key, use] : keys_) {
    if (use.uid == from && !use.isDaemons()) ++ofProcesses[use.pid];
  }
  // Another user's place comes from whichever of its processes has most.
  const int32_t* const process = richer(ofProcesses, user ? 0 : ofProcesses[owner.pid]);
  if (process) {
    return longestUnused([&](const Use& use) { return use.uid == from && use.pid == *process; });
  }
  if (user) return longestUnused([&](const Use& use) { return use.uid == from; });

  const auto idle = longestUnused([](const Use&) { return true; });
  return idle != keys_.end() && now - idle->second.last >= kAnalyticsKeyIdle ? idle : keys_.end();
}

AnalyticsKeys::Verdict AnalyticsKeys::admit(std::string_view key, KeyOwner owner, Time now) {
  if (const auto known = keys_.find(key); known != keys_.end()) {
    known->second.last = now;
    return {true, ""};
  }
  std::string givenUp;
  if (keys_.size() >= kMaxAnalyticsKeys) {
    const auto place = placeFor(owner, now);
    if (place == keys_.end()) return {false, ""};
    givenUp = keys_.extract(place).key();
  }
  keys_.emplace(key, Use{owner.uid, owner.pid, now});
  return {true, std::move(givenUp)};
}

}  // namespace quorveld::linux_platform
