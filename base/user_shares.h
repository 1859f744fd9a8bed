#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

namespace quorveld {

/// Shares a number of places out among users, so that none of them can take what the others need.
///
/// A user may hold no more places than are left for the others, which shrinks with what is taken: half of
/// them for the first one, a quarter for the next. A quarter of the places is for root alone, which may have
/// all of them. Places are taken on one queue, and given back from any thread; this object outlives them.
class UserShares {
 public:
  explicit UserShares(size_t places) : places_(places) {}

  /// `count` places for `uid`, given back together when the last copy goes; null when so many aren't left for
  /// that user.
  [[nodiscard]] std::shared_ptr<void> tryTake(uint32_t uid, size_t count = 1);

  size_t taken() const { return taken_; }

 private:
  const size_t places_;
  std::atomic<size_t> taken_{0};
  std::map<uint32_t, std::atomic<size_t>> takenBy_;
};

}  // namespace quorveld
