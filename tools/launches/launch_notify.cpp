#include "tools/launches/launch_notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "tools/base/files.h"

namespace quorvelctl {
namespace {

constexpr size_t kMaxMessageBytes = 4096;
constexpr size_t kMaxDescriptors = 16;
constexpr size_t kMaxAncestors = 4096;

/// The parent of a process as proc(5) `stat` has it; nothing when it can't be read.
std::optional<pid_t> parentOf(pid_t pid) {
  std::error_code error;
  const auto stat = readFile("/proc/" + std::to_string(pid) + "/stat", kMaxFileBytes, error);
  if (!stat) return std::nullopt;
  const size_t name = stat->rfind(") ");  // the name may hold a ')' too
  if (name == std::string::npos || stat->size() < name + 4) return std::nullopt;
  pid_t parent = 0;
  std::from_chars(stat->data() + name + 4, stat->data() + stat->size(), parent);
  return parent;
}

void takeControl(msghdr& header, NotifyMessage& message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET) continue;
    if (part->cmsg_type == SCM_CREDENTIALS) {
      ucred credentials{};
      std::memcpy(&credentials, CMSG_DATA(part), sizeof credentials);
      message.sender = credentials.pid;
      message.user = credentials.uid;
    }
    if (part->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(part) + i * sizeof fd, sizeof fd);
      message.descriptors.emplace_back(fd);
    }
  }
}

}  // namespace

bool hasLine(std::string_view text, std::string_view assignment) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (line == assignment) return true;
    text.remove_prefix(std::min(text.size(), line.size() + 1));
  }
  return false;
}

bool comesFromUs(const NotifyMessage& message) {
  pid_t pid = message.sender;
  for (size_t steps = 0; pid > 0 && steps < kMaxAncestors; ++steps) {
    if (pid == getpid()) return true;
    const std::optional<pid_t> parent = parentOf(pid);
    if (!parent) return message.user == getuid();
    pid = *parent;
  }
  return false;
}

void notifyManager(const std::string& text) {
  const char* const address = getenv("NOTIFY_SOCKET");
  const size_t length = address ? std::strlen(address) : 0;
  sockaddr_un name{};
  if (length < 2 || length >= sizeof name.sun_path || (*address != '/' && *address != '@')) return;
  name.sun_family = AF_UNIX;
  std::memcpy(name.sun_path, address, length);
  if (*address == '@') name.sun_path[0] = '\0';
  const Descriptor out(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sendto(out.get(), text.data(), text.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&name),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

NotifySocket::NotifySocket() {
  Descriptor made(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  socklen_t length = sizeof name.sun_family;  // without a name the kernel finds one, see unix(7)
  if (made.get() < 0 || setsockopt(made.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
      bind(made.get(), reinterpret_cast<sockaddr*>(&name), length) != 0) {
    return;
  }
  length = sizeof name;
  if (getsockname(made.get(), reinterpret_cast<sockaddr*>(&name), &length) != 0) return;
  address_.assign(name.sun_path, length - offsetof(sockaddr_un, sun_path));
  address_[0] = '@';
  socket_ = std::move(made);
}

std::optional<NotifyMessage> NotifySocket::receive() const {
  std::array<char, kMaxMessageBytes> text;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred)) + CMSG_SPACE(sizeof(int) * kMaxDescriptors)>
      control;
  iovec buffer{text.data(), text.size()};
  msghdr header{};
  header.msg_iov = &buffer;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t length = recvmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (length < 0) return std::nullopt;
  NotifyMessage message;
  takeControl(header, message);
  message.text.assign(text.data(), static_cast<size_t>(length));
  return message;
}

}  // namespace quorvelctl
