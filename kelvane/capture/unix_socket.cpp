#include "kelvane/capture/unix_socket.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sched.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "kelvane/base/proc_files.h"
#include "kelvane/kernel/unix_socket_ends.h"

namespace kelvane {
namespace {

struct Request {
  nlmsghdr header;
  unix_diag_req body;
};

bool ask(int fd, uint32_t inode) {
  Request request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.body.sdiag_family = AF_UNIX;
  request.body.udiag_states = UINT32_MAX;
  request.body.udiag_ino = inode;
  request.body.udiag_show = UDIAG_SHOW_PEER;
  request.body.udiag_cookie[0] = request.body.udiag_cookie[1] = UINT32_MAX;  // any
  return send(fd, &request, sizeof request, 0) == ssize_t{sizeof request};
}

/// A socket stays in the network namespace in which it was made: the thread is in another's for that call
/// alone. A container has a namespace of its own, and so has a service that is kept from the network.
UniqueFd diagnosisOf(int processDir) {
  const UniqueFd own(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  const UniqueFd theirs(openat(processDir, "ns/net", O_RDONLY | O_CLOEXEC));
  const bool entered = own && theirs && setns(theirs.get(), CLONE_NEWNET) == 0;
  UniqueFd made(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  const int error = errno;
  // What this thread still does doesn't depend on where it is.
  if (entered) [[maybe_unused]]
    const int stays = setns(own.get(), CLONE_NEWNET);
  errno = error;
  return made;
}

/// The number of a socket is no other's for as long as it is open, so that a process that has taken the pid
/// since has none of these.
uint32_t peerAmong(std::string_view sockets, uint32_t inode) {
  unix_socket_ends ends{};
  for (; sockets.size() >= sizeof ends; sockets.remove_prefix(sizeof ends)) {
    memcpy(&ends, sockets.data(), sizeof ends);
    if (ends.inode == inode) return static_cast<uint32_t>(ends.peer_inode);
  }
  return 0;
}

}  // namespace

int unixSocketPeer(const FileText& sockets, int processDir, uint32_t inode, uint32_t& peer) {
  peer = 0;
  if (inode == 0) return 0;
  if (sockets.error == 0) {
    peer = peerAmong(sockets.text, inode);
    return 0;
  }
  const UniqueFd fd = diagnosisOf(processDir);
  if (!fd || !ask(fd.get(), inode)) return errno;
  alignas(nlmsghdr) std::array<char, 1024> answer{};
  // The kernel has answered before send() returned.
  ssize_t got = recv(fd.get(), answer.data(), answer.size(), MSG_DONTWAIT);
  nlmsghdr header{};
  constexpr size_t kAttributes = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(unix_diag_msg));
  if (got < static_cast<ssize_t>(kAttributes)) return 0;
  memcpy(&header, answer.data(), sizeof header);
  if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) return 0;
  auto left = static_cast<size_t>(got) - kAttributes;
  for (const auto* attribute = reinterpret_cast<const rtattr*>(answer.data() + kAttributes);
       RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    if (attribute->rta_type != UNIX_DIAG_PEER || RTA_PAYLOAD(attribute) < sizeof peer) continue;
    memcpy(&peer, RTA_DATA(attribute), sizeof peer);
    return 0;
  }
  return 0;
}

}  // namespace kelvane
