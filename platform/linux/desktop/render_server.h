#pragma once

#include <memory>

#include "platform/linux/desktop/session_bus.h"
#include "platform/render_server.h"
#include "platform/work_queue.h"

namespace quorveld::linux_platform {

class ScreenConnection;

/// The on-screen message as a desktop notification (org.freedesktop.Notifications) on the session bus.
/// Work queue only.
///
/// Nothing waits for the bus. One call is under way at a time, and what is asked for meanwhile replaces what
/// was asked for before it, so that a slow desktop ends up with the last message. A refusal is logged once,
/// until a message gets through again.
class LinuxRenderServer final : public platform::RenderServer {
 public:
  LinuxRenderServer();
  ~LinuxRenderServer() override;

  /// The queue that all calls come from; it serves the connection. Without one there is no port.
  void useQueue(platform::WorkQueue& queue) { queue_ = &queue; }

  /// Null when there is no session bus, or it can't be connected to (then logged).
  std::unique_ptr<platform::RenderPort> port() override;

 private:
  platform::WorkQueue* queue_ = nullptr;
  bool complained_ = false;
  std::shared_ptr<ScreenConnection> connection_;
};

}  // namespace quorveld::linux_platform
