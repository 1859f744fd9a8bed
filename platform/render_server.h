#pragma once

#include <memory>

namespace quorveld::platform {

/// A connection to the render server; released on destruction.
class RenderPort {
 public:
  virtual ~RenderPort() = default;

  /// Shows one line on the screen in place of the last one; null clears it. Returns at once.
  virtual void setDebugMessage(const char* text) = 0;
};

/// The on-screen message. Work queue only.
class RenderServer {
 public:
  virtual ~RenderServer() = default;

  /// Null when there is no render server to talk to.
  [[nodiscard]] virtual std::unique_ptr<RenderPort> port() = 0;
};

}  // namespace quorveld::platform
