// What a receiver makes of a client's bytes and descriptors, in pieces of any size. Whatever the pieces, it
// hands on the same whole messages; and a second receiver that takes over between two turns goes on where the
// first one was.
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/receiver/received_connection.h"

using namespace quorveld::linux_platform;

namespace {

constexpr const char* kGuid = "0123456789abcdef0123456789abcdef";
constexpr uint32_t kNumber = 7;

class Collected final : public ReceivedMessages {
 public:
  void add(uint32_t connection, std::string_view frame, MemoryState state, int memory) override {
    if (connection != kNumber || (state == MemoryState::attached && memory < 0)) std::abort();
    const Frame whole = frameOf(frame);
    if (whole.status != FrameStatus::whole || whole.sizeBytes != frame.size() || !parseEnvelope(frame))
      std::abort();
    frames.append(frame);
  }
  std::string frames;
};

class Pair {
 public:
  Pair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    client = UniqueFd(ends[0]);
    server = UniqueFd(ends[1]);
  }
  UniqueFd client;
  UniqueFd server;
};

void send(int socket, std::string_view bytes, int descriptor) {
  iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))]{};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (descriptor >= 0) {
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  }
  static_cast<void>(sendmsg(socket, &header, MSG_NOSIGNAL | MSG_DONTWAIT));
}

ReceiverPage page;

std::string receive(std::string_view bytes, size_t pieceBytes, bool withDescriptors, bool replaced) {
  static const UniqueFd timerFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  static const UniqueFd memory(memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  HeldUpTimer timer(page, timerFd.get());
  Pair pair;
  Collected collected;
  const auto adopt = [&](HandshakeState state) {
    return std::make_unique<ReceivedConnection>(kNumber, UniqueFd(dup(pair.server.get())), kGuid, state);
  };
  auto connection = adopt(HandshakeState::nulByte);
  for (size_t at = 0; at < bytes.size() && !connection->ended(); at += pieceBytes) {
    const std::string_view piece = bytes.substr(at, pieceBytes);
    send(pair.client.get(), piece, withDescriptors && piece[0] % 4 == 1 ? memory.get() : -1);
    // What it has been sent by now it has taken when it waits.
    while (connection->takeTurn(timer, collected) == ReceivedConnection::Next::again) {
    }
    if (page.at != 0) std::abort();
    char answers[4096];
    while (recv(pair.client.get(), answers, sizeof answers, MSG_DONTWAIT) > 0) {
    }
    if (replaced && !connection->ended()) connection = adopt(connection->handshake());
  }
  connection->close(timer);
  return collected.frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kMostPieces = 200;  // small ones fill a socket that nobody reads to the end
  if (size < 1 || size > 2 * kMaxMessageBytes) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const size_t pieceBytes = std::max(1 + size_t{data[0]} * 4, size / kMostPieces + 1);
  const std::string whole = receive(bytes, bytes.size() + 1, false, false);
  if (receive(bytes, pieceBytes, false, false) != whole) std::abort();
  if (receive(bytes, pieceBytes, false, true) != whole) std::abort();
  receive(bytes, pieceBytes, true, false);
  return 0;
}
