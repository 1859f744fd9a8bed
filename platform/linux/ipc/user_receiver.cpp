#include "platform/linux/ipc/user_receiver.h"

#include <poll.h>
#include <sys/epoll.h>

#include <cstring>
#include <utility>

#include "platform/linux/ipc/ipc_limits.h"

namespace quorveld::linux_platform {

namespace {

using platform::LogLevel;

const char* textOf(EndReason reason) {
  switch (reason) {
    case EndReason::closedByClient:
      return "Connection closed by the client";
    case EndReason::readFailed:
      return "its socket can't be read";
    case EndReason::badHandshake:
      return "its handshake is not D-Bus's";
    case EndReason::slowHandshake:
      return "its handshake took too long";
    case EndReason::repliesUnread:
      return "it does not read its answers";
    case EndReason::messageTooLong:
      return "a message is longer than 16384 bytes";
    case EndReason::messageMalformed:
      return "a message is malformed";
    case EndReason::headerMalformed:
      return "a message's header is malformed";
    case EndReason::bodyMalformed:
      return "a message's body is malformed";
    case EndReason::descriptorsMissing:
      return "a message lacks its descriptors";
    case EndReason::descriptorsUnclaimed:
      return "it sent descriptors that no message claims";
    case EndReason::descriptorsTooMany:
      return "it sent more descriptors than can be held";
  }
  return "unknown";
}
static_assert(kMaxMessageBytes == 16384, "the text above says so");

UserReceiver& receiverOf(void* self) {
  return *static_cast<UserReceiver*>(self);
}

}  // namespace

UserReceiver::UserReceiver(sd_event* event, platform::Logs& logs, std::string guid, uint32_t uid,
                           std::string user, size_t& allLeftBehind,
                           std::function<void(const IpcConnection&)> dismissed)
    : event_(event),
      logs_(logs),
      guid_(std::move(guid)),
      uid_(uid),
      user_(std::move(user)),
      allLeftBehind_(allLeftBehind),
      dismissed_(std::move(dismissed)) {
  sd_event_source* source = nullptr;
  if (sd_event_add_time(event_, &source, CLOCK_MONOTONIC, 0, kPauseAccuracyUs, timePassed, this) < 0) return;
  timeSource_.reset(source);
  sd_event_source_set_enabled(source, SD_EVENT_OFF);
}

UserReceiver::~UserReceiver() {
  closeAll();
}

void UserReceiver::say(LogLevel level, const std::string& line) {
  const uint32_t before = logs_.setSender(uid_);
  logs_.handle("com.corvix.quorvel", "").write(level, line);
  logs_.setSender(before);
}

void UserReceiver::add(std::shared_ptr<IpcConnection> connection) {
  const uint32_t number = connection->number();
  connections_.emplace(number, std::move(connection));
}

void UserReceiver::serve(IpcConnection& connection) {
  if (ending_) return;
  if (!process_) {
    start();  // which takes up all of them
    return;
  }
  process_->adopt(connection.number(), connection.socket(), static_cast<uint32_t>(connection.handshake()));
  updateWriting();
}

void UserReceiver::refuse(UniqueFd socket) {
  unreleased_.push_back(std::move(socket));
  releaseAll();
}

void UserReceiver::dismiss(IpcConnection& connection, UniqueFd socket) {
  if (process_ && !ending_) {
    process_->release(connection.number(), std::move(socket));
    updateWriting();
  } else {
    unreleased_.push_back(std::move(socket));
  }
  const auto held = connections_.extract(connection.number());
  dismissed_(connection);
  if (connections_.empty() && process_ && !ending_ && !channelEnded_) wakeAfter(kIdleReceiverStays);
}

void UserReceiver::announceTermination() {
  // Every one hears of it; a handler may close others.
  for (const auto& [number, connection] : std::map(connections_)) connection->announceTermination();
}

void UserReceiver::closeAll() {
  for (const auto& [number, connection] : std::map(connections_)) connection->close();
  timeSource_.reset();
  stopWatching();
  if (process_) {
    for (UniqueFd& socket : process_->takeUnsent()) unreleased_.push_back(std::move(socket));
  }
  if (unreleased_.empty()) return process_.reset();
  // The last one, past all limits: this process must end, and not be the last to close what is left.
  std::string error;
  if (ending_ || !process_) process_ = ReceiverProcess::start(guid_, error);
  if (!process_) return;
  for (UniqueFd& socket : std::exchange(unreleased_, {})) process_->release(kNoConnection, std::move(socket));
  const auto deadline = Clock::now() + kReleasePatience;
  while (!process_->flush() && Clock::now() < deadline) {
    pollfd channel{process_->channel(), POLLOUT, 0};
    if (poll(&channel, 1, 10) < 0 || (channel.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) break;
  }
  process_.reset();
}

// --- the process ---

EventSource UserReceiver::watch(int fd, sd_event_io_handler_t handler) {
  sd_event_source* source = nullptr;
  sd_event_add_io(event_, &source, fd, EPOLLIN, handler, this);
  if (source) sd_event_source_set_priority(source, kClientPriority);
  return EventSource(source);
}

void UserReceiver::stopWatching() {
  channelSource_.reset();
  heldUpSource_.reset();
  endSource_.reset();
}

void UserReceiver::wakeAfter(std::chrono::milliseconds time) {
  if (!timeSource_) return;
  const auto delay = std::chrono::microseconds(time).count();
  sd_event_source_set_time_relative(timeSource_.get(), static_cast<uint64_t>(delay));
  sd_event_source_set_enabled(timeSource_.get(), SD_EVENT_ONESHOT);
}

void UserReceiver::start() {
  if (leftBehind_.size() >= kMaxReceiversLeftBehind) {
    say(LogLevel::standard, "Not serving " + user_ + ": " + std::to_string(leftBehind_.size()) +
                                " receivers that its clients hold up have not ended");
    return;
  }
  const auto now = Clock::now();
  if (!leftBehind_.empty() && allLeftBehind_ >= kMaxReceiversLeftBehindOfAll) {
    say(LogLevel::standard, "Not serving " + user_ + ": " + std::to_string(allLeftBehind_) +
                                " receivers that clients hold up have not ended");
    return wakeAfter(kReceiverPause);
  }
  if (now < mayStartAt_) return wakeAfter(std::chrono::ceil<std::chrono::milliseconds>(mayStartAt_ - now));
  std::string error;
  process_ = ReceiverProcess::start(guid_, error);
  if (!process_) {
    say(LogLevel::standard, "No receiver for " + user_ + ": " + error);
    mayStartAt_ = now + kReceiverPause;
    return wakeAfter(kReceiverPause);
  }
  channelSource_ = watch(process_->channel(), channelReady);
  heldUpSource_ = watch(process_->timer(), heldUp);
  endSource_ = watch(process_->pidFd(), processEnded);
  for (const auto& [number, connection] : connections_) {
    if (!connection->isResumed()) continue;
    process_->adopt(number, connection->socket(), static_cast<uint32_t>(connection->handshake()));
  }
  releaseAll();
}

void UserReceiver::releaseAll() {
  if (ending_ || unreleased_.empty()) return;
  if (!process_) return start();
  for (UniqueFd& socket : std::exchange(unreleased_, {})) process_->release(kNoConnection, std::move(socket));
  updateWriting();
  if (connections_.empty()) wakeAfter(kIdleReceiverStays);
}

void UserReceiver::updateWriting() {
  sd_event_source_set_io_events(channelSource_.get(), process_->flush() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

int UserReceiver::timePassed(sd_event_source*, uint64_t, void* self) noexcept {
  UserReceiver& receiver = receiverOf(self);
  if (receiver.ending_ || receiver.channelEnded_) {
    if (!receiver.ending_) receiver.noteEnd();
    receiver.replace();
  } else if (!receiver.process_) {
    if (!receiver.connections_.empty() || !receiver.unreleased_.empty()) receiver.start();
  } else if (receiver.connections_.empty() && !receiver.retire()) {
    receiver.wakeAfter(kIdleReceiverStays);
  }
  return 0;
}

bool UserReceiver::retire() {
  if (!connections_.empty() || !process_ || ending_ || channelEnded_ || !process_->flush()) return false;
  leaveBehind();  // without its channel it ends
  return true;
}

// --- what it sends ---

int UserReceiver::channelReady(sd_event_source* source, int, uint32_t events, void* self) noexcept {
  UserReceiver& receiver = receiverOf(self);
  if ((events & EPOLLOUT) != 0) receiver.updateWriting();
  ReceiverProcess::Packet packet;
  switch (receiver.process_->receive(packet)) {
    case ReceiverProcess::Read::packet:
      receiver.take(packet);
      break;
    case ReceiverProcess::Read::nothing:
      break;
    case ReceiverProcess::Read::end:
      // It has ended, or is about to: without its channel it is of no use.
      sd_event_source_set_enabled(source, SD_EVENT_OFF);
      if (receiver.ending_) break;
      receiver.channelEnded_ = true;
      receiver.process_->kill();
      receiver.wakeAfter(kReceiverEndPatience);
      break;
  }
  return 0;
}

void UserReceiver::take(ReceiverProcess::Packet& packet) {
  const auto place = connections_.find(packet.header.connection);
  if (place == connections_.end()) return;
  const std::shared_ptr<IpcConnection> connection = place->second;
  const uint32_t detail = packet.header.detail;
  switch (packet.header.kind) {
    case PacketKind::stage:
      if (detail <= static_cast<uint32_t>(HandshakeState::done))
        connection->setHandshake(static_cast<HandshakeState>(detail));
      break;
    case PacketKind::messages:
      if (detail <= static_cast<uint32_t>(MemoryState::last))
        connection->take(packet.bytes, static_cast<MemoryState>(detail), std::move(packet.memory));
      break;
    case PacketKind::ended:
      if (detail <= static_cast<uint32_t>(EndReason::last))
        takeEnd(*connection, static_cast<EndReason>(detail));
      break;
    case PacketKind::adopt:
    case PacketKind::release:
      break;
  }
}

void UserReceiver::takeEnd(IpcConnection& connection, EndReason reason) {
  const char* const text = textOf(reason);
  if (reason != EndReason::closedByClient) {
    say(LogLevel::info, "Closing the connection of pid " + std::to_string(connection.pid()) + ": " + text);
  }
  connection.end(text);
}

// --- its end ---

int UserReceiver::heldUp(sd_event_source*, int, uint32_t, void* self) noexcept {
  UserReceiver& receiver = receiverOf(self);
  if (receiver.ending_ || receiver.channelEnded_ || !receiver.process_->takeTimeout()) return 0;
  if (receiver.process_->at() == 0) return 0;  // it has gone on meanwhile
  if (receiver.process_->isHeldUp()) {
    receiver.endHeldUp();
  } else {
    receiver.process_->measureAnew();
  }
  return 0;
}

void UserReceiver::endHeldUp() {
  heldUpSource_.reset();
  const auto place = connections_.find(process_->at());
  std::string line = "Ending the receiver of " + user_ + ", which was held up for " +
                     std::to_string(kReceiverPatience.count()) + " ms by what ";
  line += place == connections_.end() ? "a client" : "pid " + std::to_string(place->second->pid());
  say(LogLevel::standard, line + " sent");
  // While it lives: what is given to it now, it takes along.
  endCurrent("It held its receiver up");
  killAndReplace();
}

void UserReceiver::replaceStopped() {
  if (!process_ || ending_ || channelEnded_ || !process_->isStopped()) return;
  say(LogLevel::standard, "Ending the receiver of " + user_ + ", which was stopped");
  killAndReplace();
  endCurrent("Its receiver was stopped");
}

void UserReceiver::killAndReplace() {
  ending_ = true;
  process_->kill();
  wakeAfter(kReceiverEndPatience);
}

void UserReceiver::endCurrent(const char* reason) {
  const auto place = connections_.find(process_->at());
  if (place != connections_.end()) std::shared_ptr(place->second)->end(reason);
}

int UserReceiver::processEnded(sd_event_source*, int, uint32_t, void* self) noexcept {
  UserReceiver& receiver = receiverOf(self);
  if (!receiver.ending_) receiver.noteEnd();
  receiver.replace();
  return 0;
}

void UserReceiver::noteEnd() {
  ending_ = true;
  say(LogLevel::standard, "The receiver of " + user_ + " ended by itself (" + process_->reap() + ")");
  if (++endsByThemselves_ > kReceiverEndsWithoutPause) mayStartAt_ = Clock::now() + kReceiverPause;
  endCurrent("Its receiver ended");
}

void UserReceiver::replace() {
  // What it had handed on before still counts.
  ReceiverProcess::Packet packet;
  while (process_->receive(packet) == ReceiverProcess::Read::packet) take(packet);
  leaveBehind();
  ending_ = false;
  if (!connections_.empty() || !unreleased_.empty()) start();
}

void UserReceiver::leaveBehind() {
  stopWatching();
  for (UniqueFd& socket : process_->takeUnsent()) unreleased_.push_back(std::move(socket));
  process_->closeChannel();
  if (process_->reap().empty()) {
    EventSource ended = watch(process_->pidFd(), leftBehindEnded);
    leftBehind_.push_back({std::move(process_), std::move(ended)});
    ++allLeftBehind_;
  }
  process_.reset();
  channelEnded_ = false;
}

int UserReceiver::leftBehindEnded(sd_event_source*, int, uint32_t, void* self) noexcept {
  UserReceiver& receiver = receiverOf(self);
  receiver.allLeftBehind_ -= std::erase_if(
      receiver.leftBehind_, [](const LeftBehind& left) { return !left.process->reap().empty(); });
  const bool wanted = !receiver.connections_.empty() || !receiver.unreleased_.empty();
  if (wanted && !receiver.process_ && !receiver.ending_) receiver.start();
  return 0;
}

}  // namespace quorveld::linux_platform
