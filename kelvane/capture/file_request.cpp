#include "kelvane/capture/file_request.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "kelvane/threads/mapped_file.h"

namespace kelvane {
namespace {

/// A message of one piece, with room for a descriptor.
struct Packet {
  Packet(void* bytes, size_t length) : piece{bytes, length} {
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
  }
  Packet(const Packet&) = delete;
  Packet& operator=(const Packet&) = delete;

  void attach(int fd) {
    makeRoom();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
  }
  void makeRoom() {
    message.msg_control = room;
    message.msg_controllen = sizeof room;
  }
  UniqueFd attached() {
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    int fd = -1;
    if (header && header->cmsg_type == SCM_RIGHTS) std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return UniqueFd(fd);
  }

  iovec piece;
  msghdr message{};
  alignas(cmsghdr) char room[CMSG_SPACE(sizeof(int))];
};

ssize_t sendPacket(int socket, const Packet& packet) {
  ssize_t sent;
  do sent = sendmsg(socket, &packet.message, MSG_NOSIGNAL);
  while (sent < 0 && errno == EINTR);
  return sent;
}

}  // namespace

void serveFiles(int socket, int processDir, const std::vector<MappedModule>& modules,
                const Deadline& deadline) {
  pollfd asked{socket, POLLIN, 0};
  while (!deadline.passed()) {
    if (poll(&asked, 1, deadline.leftMs()) <= 0) continue;
    uint32_t index = 0;
    if (recv(socket, &index, sizeof index, MSG_DONTWAIT) != sizeof index || index >= modules.size()) return;
    const UniqueFd file = openMappedFile(processDir, modules[index]);
    char byte = 0;
    Packet answer(&byte, sizeof byte);
    if (file) answer.attach(file.get());
    if (sendPacket(socket, answer) < 0) return;
  }
}

UniqueFd FileRequests::ask(uint32_t module) {
  if (heldUp_) return {};
  Packet request(&module, sizeof module);
  char byte = 0;
  Packet answer(&byte, sizeof byte);
  answer.makeRoom();
  ssize_t got = sendPacket(socket_, request);
  if (got > 0) {
    do got = recvmsg(socket_, &answer.message, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
  }
  heldUp_ = got <= 0;
  return heldUp_ ? UniqueFd() : answer.attached();
}

}  // namespace kelvane
