#include "kelvane/launch/left_behind.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"

namespace kelvane {
namespace {

/// Whose the process is, by its real user; nobody's number if it has ended.
uid_t userOf(pid_t pid) {
  constexpr std::string_view kField = "\nUid:\t";
  const std::string status =
      readFileAt(AT_FDCWD, ("/proc/" + std::to_string(pid) + "/status").c_str(), kMaxProcFileBytes).text;
  const size_t at = status.find(kField);
  if (at == std::string::npos) return static_cast<uid_t>(-1);
  return static_cast<uid_t>(std::strtoul(status.c_str() + at + kField.size(), nullptr, 10));
}

}  // namespace

bool LeftBehind::hasGone(Capture& capture) {
  if (capture.process) {
    siginfo_t info{};
    const auto id = static_cast<id_t>(capture.process.get());
    if (waitid(P_PIDFD, id, &info, WEXITED | WNOHANG | __WALL) == 0 && info.si_pid == 0) return false;
    capture.process = UniqueFd();
  }
  pollfd life{capture.life.get(), POLLIN, 0};
  return poll(&life, 1, 0) > 0;
}

std::string LeftBehind::whyNotLook(pid_t pid, uid_t& user) {
  user = userOf(pid);
  const std::lock_guard lock(mutex_);
  std::erase_if(captures_, hasGone);
  const auto heldUp = [](const std::string& whose) { return whose + " still held up in the kernel"; };
  if (std::any_of(captures_.begin(), captures_.end(), [&](const Capture& one) { return one.pid == pid; }))
    return heldUp("an earlier capture of it is");
  const auto ofUser =
      std::count_if(captures_.begin(), captures_.end(), [&](const Capture& one) { return one.user == user; });
  if (static_cast<size_t>(ofUser) >= kMaxLeftBehindOfUser)
    return heldUp(std::to_string(ofUser) + " captures of this user's processes are");
  if (captures_.size() >= kMaxLeftBehind) return heldUp(std::to_string(captures_.size()) + " captures are");
  return {};
}

void LeftBehind::add(pid_t pid, uid_t user, CaptureProgram& program) {
  Capture capture{pid, user, program.takeLife(), program.takeProcess()};
  if (!capture.life) return;
  // What has been ended takes a moment to go.
  pollfd life{capture.life.get(), POLLIN, 0};
  poll(&life, 1, static_cast<int>(kGoingWait.count()));
  if (hasGone(capture)) return;
  const std::lock_guard lock(mutex_);
  captures_.push_back(std::move(capture));
}

}  // namespace kelvane
