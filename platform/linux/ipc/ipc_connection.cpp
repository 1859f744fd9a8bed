#include "platform/linux/ipc/ipc_connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstring>
#include <optional>
#include <span>
#include <utility>

#include "platform/linux/ipc/launchers.h"

namespace quorveld::linux_platform {

using platform::IpcError;
using platform::IpcErrorKind;
using platform::IpcEvent;

IpcScratch::IpcScratch(platform::LogHandle& log) {
  for (size_t i = 0; i < memories.size(); ++i) {
    memories[i].setLog(log);
    memoryPointers[i] = &memories[i];
  }
}

IpcConnection::IpcConnection(uint32_t number, UniqueFd socket, ClientProcess process,
                             ConnectionServer& server, sd_event* event, std::shared_ptr<IpcScratch> scratch)
    : number_(number),
      socket_(std::move(socket)),
      process_(std::move(process)),
      server_(server),
      event_(event),
      scratch_(std::move(scratch)) {}

bool IpcConnection::mayAnnounce(int32_t launchedPid) const {
  constexpr uint32_t kRoot = 0;
  if (process_.uid == kRoot) return true;
  const std::optional<uint32_t> launched = userOfProcess(launchedPid);
  if (!launched || *launched == process_.uid) return true;
  if (!isLauncher_) isLauncher_ = isOpen() && isLauncher(socket_.get());
  return *isLauncher_;
}

void IpcConnection::setHandler(std::function<void(const IpcEvent&)> handler) {
  if (isOpen()) handler_ = std::move(handler);
}

void IpcConnection::resume() {
  if (!isOpen() || std::exchange(resumed_, true)) return;
  if (process_.hasEnded) stopListening();
  if (process_.pidFd) {
    sd_event_source* source = nullptr;
    const int result = sd_event_add_io(event_, &source, process_.pidFd.get(), EPOLLIN, processEnded, this);
    if (result < 0) return end(strerrordesc_np(-result));
    processSource_.reset(source);
    sd_event_source_set_priority(source, kClientPriority);
  }
  server_.serve(*this);
}

int IpcConnection::processEnded(sd_event_source* source, int, uint32_t, void* self) noexcept {
  sd_event_source_set_enabled(source, SD_EVENT_OFF);
  static_cast<IpcConnection*>(self)->stopListening();
  return 0;
}

/// Nothing more gets in; the receiver reads what is there, and then the end.
void IpcConnection::stopListening() {
  shutdown(socket_.get(), SHUT_RD);
}

void IpcConnection::take(std::string_view frames, MemoryState state, UniqueFd memory) {
  const auto held = shared_from_this();  // a handler may drop it
  handshake_ = HandshakeState::done;     // though that is only said at the end of the turn
  ReceivedMemory& received = scratch_->memories.front();
  received.receive(std::move(memory), state);
  while (isOpen()) {
    const Frame frame = frameOf(frames);
    if (frame.status != FrameStatus::whole) break;
    takeOne(frames.substr(0, frame.sizeBytes));
    frames.remove_prefix(frame.sizeBytes);
  }
  received.receive({}, MemoryState::none);
}

void IpcConnection::takeOne(std::string_view frame) {
  const std::optional<DBusEnvelope> envelope = parseEnvelope(frame);
  if (!envelope || envelope->descriptors > kMaxDescriptors) return;
  if (!isDictionary(*envelope)) {
    const platform::IpcOddEvent odd{describe(*envelope)};
    return deliver(&odd);
  }
  scratch_->message.clear();
  const auto memories = std::span(scratch_->memoryPointers).first(envelope->descriptors);
  if (decodeDictionary(*envelope, memories, scratch_->message)) deliver(&std::as_const(scratch_->message));
}

void IpcConnection::announceTermination() {
  const IpcError error{IpcErrorKind::terminationImminent, "Termination imminent"};
  if (isOpen()) deliver(&error);
}

void IpcConnection::deliver(const IpcEvent& event) {
  if (!handler_) return;
  // Called from a local, so that a handler which drops the connection's handler doesn't destroy itself.
  auto handler = std::exchange(handler_, nullptr);
  handler(event);
  if (isOpen() && !handler_) handler_ = std::move(handler);
}

void IpcConnection::end(std::string_view reason) {
  if (!isOpen()) return;
  const auto held = shared_from_this();
  // Who never said who it is was no peer yet: its end, a deadline's most likely, says nothing of its process.
  const auto handler = handshake_ == HandshakeState::done ? handler_ : nullptr;
  close();
  const IpcError error{IpcErrorKind::connectionInvalid, std::string(reason)};
  if (handler) handler(&error);
}

void IpcConnection::close() {
  if (!isOpen()) return;
  // The handler may hold the connection that holds it: dropped at the end, perhaps this object with it.
  const auto held = shared_from_this();
  const auto handler = std::exchange(handler_, nullptr);
  processSource_.reset();
  server_.dismiss(*this, std::move(socket_));
}

}  // namespace quorveld::linux_platform
