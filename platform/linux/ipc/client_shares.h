#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

namespace quorveld::linux_platform {

/// Who may have how many of the connections.
///
/// A user may have as many as are free for all, and a process of his as many as are left of that share: the
/// more somebody has, the less is left to ask for, and there is always something left for the next one.
/// Root has what there is, and some places that nobody else gets.
class ClientShares {
 public:
  /// `places` in all, `ofRootAlone` of them for root.
  ClientShares(size_t places, size_t ofRootAlone, size_t users);

  bool admits(uint32_t uid, int32_t pid) const;
  void add(uint32_t uid, int32_t pid);
  void remove(uint32_t uid, int32_t pid);

  size_t all() const { return all_; }
  size_t of(uint32_t uid) const;

 private:
  size_t places_;
  size_t ofRootAlone_;
  size_t users_;
  size_t all_ = 0;
  std::map<uint32_t, size_t> ofUser_;
  std::map<std::pair<uint32_t, int32_t>, size_t> ofProcess_;
};

}  // namespace quorveld::linux_platform
