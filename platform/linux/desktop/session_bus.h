#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace quorveld::linux_platform {

/// A session bus, and whom it belongs to when that isn't this process's own user.
struct SessionBus {
  std::string address;
  std::optional<uid_t> owner;
};

/// The session bus of whoever uses the device: the address in QUORVELD_SESSION_BUS; else the bus of the
/// seat's active user; else the address in DBUS_SESSION_BUS_ADDRESS; else nothing. Whether anybody answers
/// there is not looked at.
std::optional<SessionBus> findSessionBus();

}  // namespace quorveld::linux_platform
