#include "kelvane/base/packets.h"

#include <sys/socket.h>

#include <array>
#include <cstring>

namespace kelvane {

bool sendPacket(int socket, const void* bytes, size_t length, int passed) {
  iovec part{const_cast<void*>(bytes), length};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr packet{};
  packet.msg_iov = &part;
  packet.msg_iovlen = 1;
  if (passed >= 0) {
    packet.msg_control = control.data();
    packet.msg_controllen = control.size();
    cmsghdr* said = CMSG_FIRSTHDR(&packet);
    said->cmsg_level = SOL_SOCKET;
    said->cmsg_type = SCM_RIGHTS;
    said->cmsg_len = CMSG_LEN(sizeof passed);
    std::memcpy(CMSG_DATA(said), &passed, sizeof passed);
  }
  return sendmsg(socket, &packet, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(length);
}

ssize_t receivePacket(int socket, void* into, size_t length, UniqueFd& passed) {
  iovec part{into, length};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr packet{};
  packet.msg_iov = &part;
  packet.msg_iovlen = 1;
  packet.msg_control = control.data();
  packet.msg_controllen = control.size();
  const ssize_t got = recvmsg(socket, &packet, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
  const cmsghdr* said = got >= 0 ? CMSG_FIRSTHDR(&packet) : nullptr;
  if (said && said->cmsg_type == SCM_RIGHTS) {
    int number = -1;
    std::memcpy(&number, CMSG_DATA(said), sizeof number);
    passed = UniqueFd(number);
  }
  return got;
}

}  // namespace kelvane
