#include "platform/linux/ipc/client_shares.h"

#include <algorithm>

namespace quorveld::linux_platform {

namespace {

constexpr uint32_t kRoot = 0;

template <typename Key>
size_t count(const std::map<Key, size_t>& counts, const Key& key) {
  const auto place = counts.find(key);
  return place == counts.end() ? 0 : place->second;
}

template <typename Key>
void takeOne(std::map<Key, size_t>& counts, const Key& key) {
  const auto place = counts.find(key);
  if (place != counts.end() && --place->second == 0) counts.erase(place);
}

}  // namespace

ClientShares::ClientShares(size_t places, size_t ofRootAlone, size_t users)
    : places_(places), ofRootAlone_(ofRootAlone), users_(users) {}

bool ClientShares::admits(uint32_t uid, int32_t pid) const {
  if (uid == kRoot) return all_ < places_;
  const size_t forOthers = places_ - std::min(places_, ofRootAlone_);
  if (all_ >= forOthers) return false;
  const size_t ofUser = of(uid);
  if (ofUser == 0) return ofUser_.size() < users_;
  const size_t left = forOthers - all_;
  return ofUser < left && count(ofProcess_, {uid, pid}) < left - ofUser;
}

void ClientShares::add(uint32_t uid, int32_t pid) {
  ++all_;
  ++ofUser_[uid];
  ++ofProcess_[{uid, pid}];
}

void ClientShares::remove(uint32_t uid, int32_t pid) {
  --all_;
  takeOne(ofUser_, uid);
  takeOne(ofProcess_, {uid, pid});
}

size_t ClientShares::of(uint32_t uid) const {
  return count(ofUser_, uid);
}

}  // namespace quorveld::linux_platform
