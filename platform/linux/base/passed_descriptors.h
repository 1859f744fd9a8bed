#pragma once

#include <sys/socket.h>

#include <array>
#include <cstring>
#include <vector>

#include "platform/linux/base/unique_fd.h"

namespace quorveld::linux_platform {

/// Takes all descriptors that came with a message (SCM_RIGHTS, unix(7)), however many there was room for.
inline void takeDescriptors(msghdr& header, std::vector<UniqueFd>& descriptors) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(part) + i * sizeof(int), sizeof fd);
      descriptors.emplace_back(fd);
    }
  }
}

/// One descriptor on its way with a message, whose sender keeps it. Must stay where it is until that is sent.
class PassedDescriptor {
 public:
  PassedDescriptor(msghdr& header, int fd) {
    header.msg_control = control_.data();
    header.msg_controllen = control_.size();
    cmsghdr* const part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(part), &fd, sizeof fd);
  }
  PassedDescriptor(const PassedDescriptor&) = delete;
  PassedDescriptor& operator=(const PassedDescriptor&) = delete;

 private:
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control_{};
};

}  // namespace quorveld::linux_platform
