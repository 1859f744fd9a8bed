#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/desktop/session_bus.h"

namespace quorveld::linux_platform {

/// The daemon's argument that makes it a helper.
inline constexpr const char* kScreenHelperArgument = "--screen-helper";

/// What a helper is to do: show `text` in place of the message `replacedId` (0: of none), or without a text
/// close that one.
struct ScreenRequest {
  SessionBus bus;
  uint32_t replacedId = 0;
  std::optional<std::string> text;
};

/// How it went: the shown message's identifier, 0 when it was closed; or why not.
struct ScreenAnswer {
  uint32_t shownId = 0;
  std::string failure;
};

/// Both on their way through a socket that keeps packets apart.
[[nodiscard]] bool sendScreenRequest(int socket, const ScreenRequest& request);
ScreenAnswer receiveScreenAnswer(int socket);

/// The life of a helper: takes one request from descriptor 0, becomes the bus's owner for good, speaks to the
/// bus and answers. Returns the process's status.
///
/// The bus is its user's: it may say nothing, or too much. So nobody waits for this process, and what it may
/// take is limited.
int runScreenHelper();

}  // namespace quorveld::linux_platform
