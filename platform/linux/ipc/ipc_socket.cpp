#include "platform/linux/ipc/ipc_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/base/runtime_directory.h"

namespace quorveld::linux_platform {

namespace {

constexpr int kBacklog = 256;
constexpr mode_t kEveryUser = 0666;

UniqueFd activatedSocket() {
  const int count = sd_listen_fds(/*unset_environment=*/true);
  for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + count; ++fd) {
    if (sd_is_socket_unix(fd, SOCK_STREAM, /*listening=*/1, nullptr, 0) <= 0) continue;
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return UniqueFd(fd);
  }
  return {};
}

void removeStaleSocket(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(path.c_str());
}

}  // namespace

ListeningSocket openListeningSocket(const std::string& path, std::string& error) {
  if (UniqueFd activated = activatedSocket()) return {std::move(activated), {}};
  const auto failed = [&](const char* what) {
    error = path + ": " + what + " failed: " + strerrordesc_np(errno);
    return ListeningSocket{};
  };
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    error = path + ": too long for a socket's path";
    return {};
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (!makeRuntimeDirectory(error)) return {};
  removeStaleSocket(path);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return failed("socket");
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return failed("bind");
  if (chmod(path.c_str(), kEveryUser) != 0) return failed("chmod");
  if (::listen(fd.get(), kBacklog) != 0) return failed("listen");
  return {std::move(fd), path};
}

}  // namespace quorveld::linux_platform
