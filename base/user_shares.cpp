#include "base/user_shares.h"

namespace quorveld {

std::shared_ptr<void> UserShares::tryTake(uint32_t uid, size_t count) {
  // Who has given back everything is forgotten: this holds no more users than places.
  std::erase_if(takenBy_, [](const auto& entry) { return entry.second == 0; });
  const size_t forUid = uid == 0 ? places_ : places_ - places_ / 4;
  const size_t taken = taken_;
  if (taken >= forUid || count > forUid - taken) return nullptr;
  const auto found = takenBy_.find(uid);
  const size_t own = found == takenBy_.end() ? 0 : found->second.load();
  if (uid != 0 && own + count > forUid - taken) return nullptr;

  std::atomic<size_t>& ownTaken = takenBy_[uid];
  ownTaken += count;
  taken_ += count;
  return {&ownTaken, [this, count](std::atomic<size_t>* users) {
            taken_ -= count;
            *users -= count;
          }};
}

}  // namespace quorveld
