#pragma once

#include "platform/ipc.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// D-Bus connections without a bus between, on the AF_UNIX stream socket <root>/run/quorveld/<service name>,
/// or on the one that systemd's socket activation hands over.
///
/// Main queue only. Any local user may connect; what clients can cost is bounded by ipc_limits.h.
class LinuxIpc final : public platform::Ipc {
 public:
  /// What clients and their receivers do is logged to `logs`, on behalf of their users.
  explicit LinuxIpc(platform::Logs& logs) : logs_(logs) {}

  /// `queue` is the main queue of this platform's LinuxQueues.
  std::unique_ptr<platform::Listener> listen(std::string_view serviceName,
                                             platform::MainQueue& queue) override;
  int32_t pidOf(const platform::IpcError&) override { return 0; }

 private:
  platform::Logs& logs_;
};

}  // namespace quorveld::linux_platform
