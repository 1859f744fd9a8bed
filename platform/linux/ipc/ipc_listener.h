#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/ipc.h"
#include "platform/linux/ipc/client_shares.h"
#include "platform/linux/ipc/ipc_connection.h"
#include "platform/linux/ipc/ipc_socket.h"
#include "platform/linux/ipc/user_receiver.h"
#include "platform/linux/queues/event_queues.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// Accepts clients and has them served, those of each user by a receiver of theirs. Main queue only.
///
/// Invariant: `shares_` counts exactly the connections that `users_` hold.
class IpcListener final : public platform::Listener {
 public:
  IpcListener(std::string_view serviceName, MainEventQueue& queue, platform::Logs& logs);
  ~IpcListener() override;

  void setHandler(std::function<void(const platform::ListenerEvent&)> handler) override;
  void resume() override;

 private:
  static int acceptable(sd_event_source*, int, uint32_t, void* self) noexcept;
  static int childChanged(sd_event_source*, const signalfd_siginfo*, void* self) noexcept;
  static int pauseEnded(sd_event_source*, uint64_t, void* self) noexcept;

  bool open(std::string& error);
  void acceptSome();
  void welcome(UniqueFd socket);
  /// True when there is room for one more; else a line about it, now and then.
  bool admits(const ClientProcess& process);
  UserReceiver& receiverOf(uint32_t uid);
  /// Lets receivers go that nobody needs, before one for another user.
  void makeRoom();
  /// Has a socket closed whose client is not let in.
  void refuse(UniqueFd socket);
  std::unique_ptr<UserReceiver> makeReceiver(uint32_t uid, std::string user);
  void pauseAccepting(int error);
  void restFor(std::chrono::milliseconds pause);
  void terminate();
  void closeAll();
  void deliver(platform::IpcErrorKind kind, std::string description);

  std::string serviceName_;
  MainEventQueue& queue_;
  platform::Logs& logs_;
  platform::LogHandle& log_;
  std::function<void(const platform::ListenerEvent&)> handler_;
  ListeningSocket socket_;
  EventSource acceptSource_;
  EventSource pauseTimer_;
  EventSource childSource_;
  std::shared_ptr<const char> alive_ = std::make_shared<const char>();  // gone: what was posted is void
  std::shared_ptr<IpcScratch> scratch_;
  ClientShares shares_;
  std::string guid_;
  uint32_t lastNumber_ = 0;
  size_t leftBehind_ = 0;  // receivers of all users
  std::map<uint32_t, std::unique_ptr<UserReceiver>> users_;
  std::unique_ptr<UserReceiver> refusals_;
  std::optional<std::chrono::steady_clock::time_point> refusalLogged_;
  uint64_t refusedSinceLogged_ = 0;
};

}  // namespace quorveld::linux_platform
