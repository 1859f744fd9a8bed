#include "platform/linux/receiver/receiver.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/linux/base/passed_descriptors.h"

namespace quorveld::linux_platform {

namespace {

constexpr int kEventsPerWait = 64;

[[noreturn]] void daemonHasGone() {
  _exit(0);
}

}  // namespace

Receiver::Receiver(int channel, ReceiverPage& page, int timer, std::string guid)
    : channel_(channel), timer_(page, timer), guid_(std::move(guid)), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u32 = 0;  // no connection has this number
  epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, channel_, &event);
}

void Receiver::run() {
  while (true) {
    std::array<epoll_event, kEventsPerWait> events;
    const int count = epoll_wait(epoll_.get(), events.data(), kEventsPerWait, waitMs());
    if (count < 0 && errno != EINTR) _exit(1);
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<size_t>(i)];
      if (event.data.u32 != 0) {
        wake(event.data.u32, event.events);
      } else {
        takePacket();
      }
    }
    giveTurns();
    endLateGreetings();
    keepOldBeginnings();
  }
}

void Receiver::takePacket() {
  PacketHeader header{};
  iovec room{&header, sizeof header};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * kMaxPacketDescriptors)> control;
  msghdr packet{};
  packet.msg_iov = &room;
  packet.msg_iovlen = 1;
  packet.msg_control = control.data();
  packet.msg_controllen = control.size();
  const ssize_t received = recvmsg(channel_, &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (received < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (received != sizeof header) daemonHasGone();
  std::vector<UniqueFd> sockets;
  takeDescriptors(packet, sockets);
  if (header.kind == PacketKind::adopt && sockets.size() == 1) {
    adopt(header.connection, std::move(sockets.front()), header.detail);
  } else {
    release(header.connection, std::move(sockets));
  }
}

void Receiver::adopt(uint32_t number, UniqueFd socket, uint32_t state) {
  epoll_event event{};
  // Edge-triggered: what is incomplete stays in the socket, and must not wake anybody until more comes.
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
  event.data.u32 = number;
  epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, socket.get(), &event);
  const auto [place, isNew] =
      connections_.try_emplace(number, number, std::move(socket), guid_, static_cast<HandshakeState>(state));
  if (isNew && !place->second.greeted()) greetings_.push_back({Clock::now() + kHandshakeDeadline, number});
}

void Receiver::release(uint32_t number, std::vector<UniqueFd> sockets) {
  const auto place = connections_.find(number);
  if (place != connections_.end()) {
    place->second.close(timer_);
    connections_.erase(place);
  }
  const HeldUpTimer::Step step(timer_, number);
  sockets.clear();
}

void Receiver::wake(uint32_t number, uint32_t events) {
  const auto place = connections_.find(number);
  if (place == connections_.end()) return;
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) place->second.hangUp();
  if (std::find(turns_.begin(), turns_.end(), number) == turns_.end()) turns_.push_back(number);
}

void Receiver::giveTurns() {
  for (const uint32_t number : std::exchange(turns_, {})) giveTurn(number);
}

void Receiver::giveTurn(uint32_t number) {
  const auto place = connections_.find(number);
  if (place == connections_.end()) return;
  ReceivedConnection& connection = place->second;
  const HandshakeState before = connection.handshake();
  const auto next = connection.takeTurn(timer_, *this);
  flush();
  if (connection.handshake() != before)
    send({PacketKind::stage, number, static_cast<uint32_t>(connection.handshake())});
  if (const auto reason = connection.ended()) return end(number, *reason);
  if (next == ReceivedConnection::Next::again) turns_.push_back(number);
  if (next == ReceivedConnection::Next::waitBut)
    beginnings_.push_back({Clock::now() + kBeginningStays, number});
}

void Receiver::end(uint32_t number, EndReason reason) {
  const auto place = connections_.find(number);
  place->second.close(timer_);
  connections_.erase(place);
  send({PacketKind::ended, number, static_cast<uint32_t>(reason)});
}

bool Receiver::isPassed(const Deadlines& deadlines) {
  return !deadlines.empty() && deadlines.front().at <= Clock::now();
}

ReceivedConnection* Receiver::takeFirst(Deadlines& deadlines) {
  const auto place = connections_.find(deadlines.front().connection);
  deadlines.pop_front();
  return place == connections_.end() ? nullptr : &place->second;
}

void Receiver::endLateGreetings() {
  while (isPassed(greetings_)) {
    const ReceivedConnection* const connection = takeFirst(greetings_);
    if (connection && !connection->greeted()) end(connection->number(), EndReason::slowHandshake);
  }
}

void Receiver::keepOldBeginnings() {
  while (isPassed(beginnings_)) {
    ReceivedConnection* const connection = takeFirst(beginnings_);
    if (!connection) continue;
    connection->keepBeginning();
    wake(connection->number(), 0);
  }
}

int Receiver::waitMs() const {
  if (!turns_.empty()) return 0;
  std::optional<Clock::time_point> first;
  for (const Deadlines* deadlines : {&greetings_, &beginnings_}) {
    if (!deadlines->empty() && (!first || deadlines->front().at < *first)) first = deadlines->front().at;
  }
  if (!first) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now()).count();
  return static_cast<int>(std::max<int64_t>(left, 0));
}

void Receiver::add(uint32_t connection, std::string_view frame, MemoryState state, int memory) {
  if (state == MemoryState::none) {
    batched_ = connection;
    batch_.append(frame);
    return;
  }
  flush();
  send({PacketKind::messages, connection, static_cast<uint32_t>(state)}, frame,
       state == MemoryState::attached ? memory : -1);
}

void Receiver::flush() {
  if (batch_.empty()) return;
  send({PacketKind::messages, batched_, static_cast<uint32_t>(MemoryState::none)}, batch_);
  batch_.clear();
}

void Receiver::send(const PacketHeader& header, std::string_view bytes, int fd) const {
  std::array<iovec, 2> parts{iovec{const_cast<PacketHeader*>(&header), sizeof header},
                             iovec{const_cast<char*>(bytes.data()), bytes.size()}};
  msghdr packet{};
  packet.msg_iov = parts.data();
  packet.msg_iovlen = parts.size();
  std::optional<PassedDescriptor> passed;
  if (fd >= 0) passed.emplace(packet, fd);
  while (sendmsg(channel_, &packet, MSG_NOSIGNAL) < 0) {
    if (errno != EINTR) daemonHasGone();
  }
}

}  // namespace quorveld::linux_platform
