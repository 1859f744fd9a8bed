#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/ipc.h"
#include "platform/linux/ipc/ipc_connection.h"
#include "platform/linux/ipc/ipc_socket.h"
#include "platform/linux/queues/event_queues.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// Accepts clients and owns their connections. Main queue only.
///
/// Invariant: `connections_` holds exactly the open ones, and `peersOfUser_` counts them by user.
class IpcListener final : public platform::Listener {
 public:
  IpcListener(std::string_view serviceName, MainEventQueue& queue, platform::LogHandle& log);
  ~IpcListener() override;

  void setHandler(std::function<void(const platform::ListenerEvent&)> handler) override;
  void resume() override;

 private:
  static int acceptable(sd_event_source*, int, uint32_t, void* self) noexcept;
  static int pauseEnded(sd_event_source*, uint64_t, void* self) noexcept;

  bool open(std::string& error);
  void acceptSome();
  void welcome(UniqueFd socket);
  /// True when there is room for one more client of that user; else a line about it, now and then.
  bool admits(uint32_t uid);
  void pauseAccepting(int error);
  void forget(IpcConnection& connection);
  void terminate();
  void closeAll();
  void deliver(platform::IpcErrorKind kind, std::string description);

  std::string serviceName_;
  MainEventQueue& queue_;
  platform::LogHandle& log_;
  std::function<void(const platform::ListenerEvent&)> handler_;
  ListeningSocket socket_;
  EventSource acceptSource_;
  EventSource pauseTimer_;
  std::shared_ptr<IpcConnectionContext> context_;
  std::shared_ptr<const char> alive_ = std::make_shared<const char>();  // gone: what was posted is void
  std::unordered_map<IpcConnection*, std::shared_ptr<IpcConnection>> connections_;
  std::map<uint32_t, size_t> peersOfUser_;
  std::optional<std::chrono::steady_clock::time_point> refusalLogged_;
  uint64_t refusedSinceLogged_ = 0;
};

}  // namespace quorveld::linux_platform
