#pragma once

#include <string>

#include "platform/linux/base/unique_fd.h"

namespace quorveld::linux_platform {

/// A listening socket, and the path to remove when it closes (empty for a socket that is systemd's).
struct ListeningSocket {
  UniqueFd fd;
  std::string path;
};

/// The socket that systemd's socket activation handed over (sd_listen_fds(3)), else a new one at `path`, open
/// to every user; a socket that is left there from an earlier run is replaced. Without a descriptor, and the
/// reason in `error`, on failure.
ListeningSocket openListeningSocket(const std::string& path, std::string& error);

}  // namespace quorveld::linux_platform
