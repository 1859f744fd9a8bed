#pragma once

#include <systemd/sd-event.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/ipc.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/ipc/shared_memory.h"
#include "platform/linux/queues/event_loop.h"
#include "platform/linux/wire/dbus_handshake.h"
#include "platform/linux/wire/dbus_message.h"
#include "platform/linux/wire/receiver_packets.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

class IpcConnection;

/// What messages are decoded into, one after another: nothing is allocated for one.
struct IpcScratch {
  explicit IpcScratch(platform::LogHandle& log);

  platform::IpcMessage message;
  std::array<ReceivedMemory, kMaxDescriptors> memories;
  std::array<platform::SharedMemory*, kMaxDescriptors> memoryPointers;
};

/// What serves connections and is told of their beginning and end.
class ConnectionServer {
 public:
  virtual ~ConnectionServer() = default;
  virtual void serve(IpcConnection& connection) = 0;
  /// The connection has ended: it is forgotten, and its socket closed elsewhere.
  virtual void dismiss(IpcConnection& connection, UniqueFd socket) = 0;
};

/// The process at the other end when it connected.
struct ClientProcess {
  int32_t pid = 0;
  uint32_t uid = 0;
  /// Readable once it has ended (pidfd_open(2)); none where that can't be had.
  UniqueFd pidFd;
  bool hasEnded = false;  ///< before it was looked at
};

/// One client at the other end of a D-Bus connection without a bus. Main queue only.
///
/// Its socket is read by the user's receiver; here is what the daemon knows of it. The connection ends with
/// the process that made it, whoever else holds it: what was sent before is still heard.
class IpcConnection final : public platform::Peer, public std::enable_shared_from_this<IpcConnection> {
 public:
  IpcConnection(uint32_t number, UniqueFd socket, ClientProcess process, ConnectionServer& server,
                sd_event* event, std::shared_ptr<IpcScratch> scratch);

  uint32_t number() const { return number_; }
  int socket() const { return socket_.get(); }
  int32_t pid() const override { return process_.pid; }
  uint32_t uid() const override { return process_.uid; }
  bool mayAnnounce(int32_t launchedPid) const override;
  HandshakeState handshake() const { return handshake_; }
  void setHandshake(HandshakeState state) { handshake_ = state; }
  /// Whether what it sends is wanted by now.
  bool isResumed() const { return resumed_; }

  void setHandler(std::function<void(const platform::IpcEvent&)> handler) override;
  void resume() override;
  void disconnect() override { end("Connection closed by the daemon"); }

  /// Delivers whole messages; of a packet with memory there is one.
  void take(std::string_view frames, MemoryState state, UniqueFd memory);

  /// Tells the handler that the end is near.
  void announceTermination();

  /// Gives the socket away and delivers the connection's last event.
  void end(std::string_view reason);

  /// Gives the socket away without an event.
  void close();

 private:
  static int processEnded(sd_event_source*, int, uint32_t, void* self) noexcept;
  void stopListening();
  void takeOne(std::string_view frame);
  void deliver(const platform::IpcEvent& event);
  bool isOpen() const { return static_cast<bool>(socket_); }

  const uint32_t number_;
  UniqueFd socket_;
  ClientProcess process_;
  ConnectionServer& server_;
  sd_event* const event_;
  HandshakeState handshake_ = HandshakeState::nulByte;
  bool resumed_ = false;
  mutable std::optional<bool> isLauncher_;  // once it was asked
  EventSource processSource_;
  std::shared_ptr<IpcScratch> scratch_;
  std::function<void(const platform::IpcEvent&)> handler_;
};

}  // namespace quorveld::linux_platform
