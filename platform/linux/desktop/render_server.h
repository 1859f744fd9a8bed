#pragma once

#include <memory>
#include <string>

#include "platform/render_server.h"
#include "platform/work_queue.h"

namespace quorveld::linux_platform {

class Screen;

/// The on-screen message as a desktop notification (org.freedesktop.Notifications) on the session bus. Work
/// queue only.
///
/// Who speaks to the bus is a process of its own for each message, which is given three seconds. One is under
/// way at a time, and what is asked for meanwhile replaces what was asked for before it, so that a slow
/// desktop ends up with the last message. A failure is logged once, until a message gets through again.
class LinuxRenderServer final : public platform::RenderServer {
 public:
  /// `program` is the daemon, which helps itself.
  explicit LinuxRenderServer(std::string program = "/proc/self/exe");
  ~LinuxRenderServer() override;

  /// The queue that all calls come from; it watches the helper. Without one there is no port.
  void useQueue(platform::WorkQueue& queue);

  /// Null when there is no session bus to try.
  std::unique_ptr<platform::RenderPort> port() override;

 private:
  const std::string program_;
  std::shared_ptr<Screen> screen_;
};

}  // namespace quorveld::linux_platform
