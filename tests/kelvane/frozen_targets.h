#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelvane_test {

/// Victims of a mode that goes by a file, each with one whose server has stopped: whoever opens or reads it
/// waits in the kernel, and no signal ends who has asked the server. The server and its mount live in a mount
/// namespace of their own; when it ends, the kernel lets all go.
class FrozenTargets {
 public:
  /// One victim for each of `users`.
  FrozenTargets(const std::string& mode, const std::vector<uid_t>& users);
  ~FrozenTargets() { thaw(); }
  FrozenTargets(const FrozenTargets&) = delete;
  FrozenTargets& operator=(const FrozenTargets&) = delete;

  /// Why there are none; empty: there are.
  const std::string& problem() const { return problem_; }
  pid_t pid(size_t index) const { return pids_[index]; }
  pid_t thread(size_t index) const { return threads_[index]; }
  void thaw();

 private:
  pid_t server_ = -1;
  std::string problem_;
  std::vector<pid_t> pids_;
  std::vector<pid_t> threads_;
};

}  // namespace kelvane_test
