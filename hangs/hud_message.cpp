#include "hangs/hud_message.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "base/log.h"
#include "base/settings.h"
#include "platform/platform.h"
#include "platform/render_server.h"

namespace quorveld {

namespace {

/// Null when no message is wanted here, or there is nobody to show it (then logged).
std::unique_ptr<platform::RenderPort> renderPort() {
  if (!settings().isInternalBuild || !settings().enableHUD) return nullptr;
  auto port = platform::current().renderServer.port();
  if (!port) quorvelLog().standard("Unable to get render server port!");
  return port;
}

}  // namespace

void setHUDMessage(const char* format, ...) {
  const auto port = renderPort();
  if (!port) return;
  std::array<char, 100> message;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message.data(), message.size(), format, arguments);
  va_end(arguments);
  quorvelLog().info("Setting message to: \"%s\"", message.data());
  port->setDebugMessage(message.data());
}

void clearHUDMessage() {
  if (const auto port = renderPort()) port->setDebugMessage(nullptr);
}

}  // namespace quorveld
