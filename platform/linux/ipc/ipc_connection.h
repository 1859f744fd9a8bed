#pragma once

#include <sys/socket.h>
#include <systemd/sd-event.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ipc.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/ipc/dbus_handshake.h"
#include "platform/linux/ipc/dbus_message.h"
#include "platform/linux/ipc/ipc_limits.h"
#include "platform/linux/ipc/shared_memory.h"
#include "platform/linux/queues/event_loop.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

class IpcConnection;

/// Where connections read to and decode into, one after another: nothing is allocated for a message.
struct IpcScratch {
  explicit IpcScratch(platform::LogHandle& log);

  std::array<char, kMaxMessageBytes + kReadBytesPerTurn> bytes;
  platform::IpcMessage message;
  std::array<ReceivedMemory, kMaxDescriptors> memories;
  std::array<platform::SharedMemory*, kMaxDescriptors> memoryPointers;
};

/// What a connection shares with the others of its listener, and whom it tells that it has gone.
struct IpcConnectionContext {
  IpcConnectionContext(sd_event* loop, platform::LogHandle& logHandle);

  sd_event* event;
  platform::LogHandle& log;
  std::string guid;  ///< names this server to D-Bus clients
  std::function<void(IpcConnection&)> forget;
  IpcScratch scratch;
};

/// One client at the other end of a D-Bus connection without a bus. Main queue only.
///
/// Receives messages, answers Hello and nothing else. A client that breaks the format or a limit is closed.
/// Invariant: an open connection holds at most one incomplete message (`partial_`) and the descriptors that
/// came with it (`descriptors_`); what it could not send at once it does not keep, it closes.
class IpcConnection final : public platform::Peer, public std::enable_shared_from_this<IpcConnection> {
 public:
  IpcConnection(std::shared_ptr<IpcConnectionContext> context, UniqueFd socket, int32_t pid, uint32_t uid);

  int32_t pid() const override { return pid_; }
  uint32_t uid() const { return uid_; }
  void setHandler(std::function<void(const platform::IpcEvent&)> handler) override;
  void resume() override;
  void disconnect() override { fail("Connection closed by the daemon"); }

  /// Tells the handler that the end is near.
  void announceTermination();

  /// Closes without an event.
  void close();

 private:
  static int readable(sd_event_source*, int, uint32_t, void* self) noexcept;
  static int handshakeTimedOut(sd_event_source*, uint64_t, void* self) noexcept;

  void readOnce();
  bool takeDescriptors(msghdr& header);
  size_t consume(std::string_view bytes);
  size_t consumeHandshake(std::string_view bytes);
  size_t consumeMessage(std::string_view bytes);
  void handleMessage(std::string_view frame);
  void dispatchDictionary(const DBusEnvelope& envelope);
  void answerHello(const DBusEnvelope& envelope);
  bool send(std::string_view bytes);
  void deliver(const platform::IpcEvent& event);

  /// Closes a client that broke the rules, and says so in the log.
  void refuse(std::string_view reason);
  /// Closes, and delivers the connection's last event.
  void fail(std::string_view reason);
  bool isOpen() const { return static_cast<bool>(socket_); }

  std::shared_ptr<IpcConnectionContext> context_;
  UniqueFd socket_;
  int32_t pid_;
  uint32_t uid_;
  uint32_t lastSerial_ = 0;
  std::unique_ptr<DBusHandshake> handshake_;  // null once it is done
  EventSource readSource_;
  EventSource handshakeTimer_;
  std::vector<char> partial_;
  std::vector<UniqueFd> descriptors_;
  std::function<void(const platform::IpcEvent&)> handler_;
};

}  // namespace quorveld::linux_platform
