#include "platform/linux/ipc/ipc_connection.h"

#include <sys/epoll.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "abi/messages.h"

namespace quorveld::linux_platform {

namespace {

using platform::IpcError;
using platform::IpcErrorKind;
using platform::IpcEvent;

bool isDictionary(const DBusEnvelope& envelope) {
  return (envelope.type == DBusType::methodCall || envelope.type == DBusType::signal) &&
         envelope.interface == QV_MESSAGE_INTERFACE && envelope.member == QV_MESSAGE_MEMBER &&
         envelope.signature == QV_MESSAGE_SIGNATURE;
}

bool isHello(const DBusEnvelope& envelope) {
  return envelope.type == DBusType::methodCall && envelope.interface == "org.freedesktop.DBus" &&
         envelope.member == "Hello";
}

}  // namespace

IpcScratch::IpcScratch(platform::LogHandle& log) {
  for (size_t i = 0; i < memories.size(); ++i) {
    memories[i].setLog(log);
    memoryPointers[i] = &memories[i];
  }
}

IpcConnectionContext::IpcConnectionContext(sd_event* loop, platform::LogHandle& logHandle)
    : event(loop), log(logHandle), scratch(logHandle) {
  sd_id128_t id{};
  std::array<char, SD_ID128_STRING_MAX> text;
  if (sd_id128_randomize(&id) < 0) id.bytes[0] = 1;  // any will do: clients only compare it with itself
  guid = sd_id128_to_string(id, text.data());
}

IpcConnection::IpcConnection(std::shared_ptr<IpcConnectionContext> context, UniqueFd socket, int32_t pid,
                             uint32_t uid)
    : context_(std::move(context)),
      socket_(std::move(socket)),
      pid_(pid),
      uid_(uid),
      handshake_(std::make_unique<DBusHandshake>(context_->guid)) {}

void IpcConnection::setHandler(std::function<void(const IpcEvent&)> handler) {
  if (isOpen()) handler_ = std::move(handler);
}

void IpcConnection::resume() {
  if (!isOpen() || readSource_) return;
  sd_event_source* source = nullptr;
  int result = sd_event_add_io(context_->event, &source, socket_.get(), EPOLLIN, readable, this);
  if (result < 0) return fail(strerrordesc_np(-result));
  readSource_.reset(source);
  sd_event_source_set_priority(source, kClientPriority);

  const auto deadline = std::chrono::microseconds(kHandshakeDeadline);
  source = nullptr;
  result = sd_event_add_time_relative(context_->event, &source, CLOCK_MONOTONIC,
                                      static_cast<uint64_t>(deadline.count()), 0, handshakeTimedOut, this);
  if (result < 0) return fail(strerrordesc_np(-result));
  handshakeTimer_.reset(source);
  sd_event_source_set_priority(source, kClientPriority);
}

void IpcConnection::announceTermination() {
  const IpcError error{IpcErrorKind::terminationImminent, "Termination imminent"};
  if (isOpen()) deliver(&error);
}

void IpcConnection::close() {
  // The handler may hold the connection that holds it: dropped at the end, perhaps this object with it.
  const auto handler = std::exchange(handler_, nullptr);
  readSource_.reset();
  handshakeTimer_.reset();
  descriptors_.clear();
  socket_.reset();
}

int IpcConnection::readable(sd_event_source*, int, uint32_t, void* self) noexcept {
  const auto held = static_cast<IpcConnection*>(self)->shared_from_this();  // the event may be its last
  held->readOnce();
  return 0;
}

int IpcConnection::handshakeTimedOut(sd_event_source*, uint64_t, void* self) noexcept {
  const auto held = static_cast<IpcConnection*>(self)->shared_from_this();
  held->refuse("its handshake took too long");
  return 0;
}

void IpcConnection::readOnce() {
  const std::shared_ptr<IpcConnectionContext> context = context_;  // a handler may destroy the listener
  IpcScratch& scratch = context->scratch;
  std::copy(partial_.begin(), partial_.end(), scratch.bytes.begin());

  iovec buffer{scratch.bytes.data() + partial_.size(), kReadBytesPerTurn};
  // Room for no more than a connection may hold: the kernel closes the rest and sets MSG_CTRUNC.
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * kMaxDescriptors)> control;
  msghdr header{};
  header.msg_iov = &buffer;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t received = recvmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (received < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (received < 0) return fail(strerrordesc_np(errno));
  const bool descriptorsFit = takeDescriptors(header);
  if (received == 0) return fail("Connection closed by the client");
  if (!descriptorsFit) return refuse("it sent more descriptors than can be held");

  const std::string_view bytes(scratch.bytes.data(), partial_.size() + static_cast<size_t>(received));
  const size_t consumed = consume(bytes);
  if (!isOpen()) return;
  partial_.assign(bytes.begin() + static_cast<ptrdiff_t>(consumed), bytes.end());
  if (partial_.empty() && !descriptors_.empty()) refuse("it sent descriptors that no message claims");
}

bool IpcConnection::takeDescriptors(msghdr& header) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(part) + i * sizeof(int), sizeof fd);
      descriptors_.emplace_back(fd);
    }
  }
  return (header.msg_flags & MSG_CTRUNC) == 0 && descriptors_.size() <= kMaxDescriptors;
}

/// Takes all that is whole; the number of bytes taken. The connection may be closed afterwards.
size_t IpcConnection::consume(std::string_view bytes) {
  size_t total = 0;
  while (isOpen()) {
    const std::string_view rest = bytes.substr(total);
    const size_t taken = handshake_ ? consumeHandshake(rest) : consumeMessage(rest);
    if (taken == 0) break;
    total += taken;
  }
  return total;
}

size_t IpcConnection::consumeHandshake(std::string_view bytes) {
  const DBusHandshake::Step step = handshake_->take(bytes);
  if (step.status == DBusHandshake::Status::refused) refuse("its handshake is not D-Bus's");
  if (!step.reply.empty() && !send(step.reply)) refuse("it does not read the handshake");
  if (step.status == DBusHandshake::Status::done) {
    handshakeTimer_.reset();
    handshake_.reset();
  }
  return step.consumedBytes;
}

size_t IpcConnection::consumeMessage(std::string_view bytes) {
  const Frame frame = frameOf(bytes);
  switch (frame.status) {
    case FrameStatus::incomplete:
      break;
    case FrameStatus::tooLong:
      refuse("a message is longer than " + std::to_string(kMaxMessageBytes) + " bytes");
      break;
    case FrameStatus::malformed:
      refuse("a message is malformed");
      break;
    case FrameStatus::whole:
      handleMessage(bytes.substr(0, frame.sizeBytes));
      return frame.sizeBytes;
  }
  return 0;
}

void IpcConnection::handleMessage(std::string_view frame) {
  const std::optional<DBusEnvelope> envelope = parseEnvelope(frame);
  if (!envelope) return refuse("a message's header is malformed");
  if (envelope->descriptors > descriptors_.size()) return refuse("a message lacks its descriptors");
  if (isDictionary(*envelope)) return dispatchDictionary(*envelope);
  descriptors_.erase(descriptors_.begin(), descriptors_.begin() + envelope->descriptors);
  if (isHello(*envelope)) return answerHello(*envelope);
  const platform::IpcOddEvent odd{describe(*envelope)};
  deliver(&odd);
}

void IpcConnection::dispatchDictionary(const DBusEnvelope& envelope) {
  const std::shared_ptr<IpcConnectionContext> context = context_;
  IpcScratch& scratch = context->scratch;
  for (size_t i = 0; i < envelope.descriptors; ++i) scratch.memories[i].receive(descriptors_[i].release());
  descriptors_.erase(descriptors_.begin(), descriptors_.begin() + envelope.descriptors);
  scratch.message.clear();
  const std::span<platform::SharedMemory* const> memories(scratch.memoryPointers.data(),
                                                          envelope.descriptors);
  if (decodeDictionary(envelope, memories, scratch.message)) {
    deliver(&std::as_const(scratch.message));
  } else {
    refuse("a message's body is malformed");
  }
  for (size_t i = 0; i < envelope.descriptors; ++i) scratch.memories[i].receive(-1);
}

void IpcConnection::answerHello(const DBusEnvelope& envelope) {
  if (!envelope.wantsReply) return;
  ++lastSerial_;
  if (!send(helloReply(lastSerial_, envelope.serial, lastSerial_))) refuse("it does not read its answers");
}

bool IpcConnection::send(std::string_view bytes) {
  const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(bytes.size());
}

void IpcConnection::deliver(const IpcEvent& event) {
  if (!handler_) return;
  // Called from a local, so that a handler which drops the connection's handler doesn't destroy itself.
  auto handler = std::exchange(handler_, nullptr);
  handler(event);
  if (isOpen() && !handler_) handler_ = std::move(handler);
}

void IpcConnection::refuse(std::string_view reason) {
  if (!isOpen()) return;
  std::string line = "Closing the connection of pid " + std::to_string(pid_) + ": ";
  context_->log.write(platform::LogLevel::info, line.append(reason));
  fail(reason);
}

void IpcConnection::fail(std::string_view reason) {
  if (!isOpen()) return;
  const auto held = shared_from_this();
  const auto handler = std::exchange(handler_, nullptr);
  close();
  context_->forget(*this);
  const IpcError error{IpcErrorKind::connectionInvalid, std::string(reason)};
  if (handler) handler(&error);
}

}  // namespace quorveld::linux_platform
