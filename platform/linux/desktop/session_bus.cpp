#include "platform/linux/desktop/session_bus.h"

#include <systemd/sd-login.h>

#include <cstdlib>

namespace quorveld::linux_platform {

std::optional<SessionBus> findSessionBus() {
  const char* chosen = std::getenv("QUORVELD_SESSION_BUS");
  if (chosen && *chosen) return SessionBus{chosen, std::nullopt};
  uid_t user = 0;
  if (sd_seat_get_active("seat0", nullptr, &user) >= 0) {
    return SessionBus{"unix:path=/run/user/" + std::to_string(user) + "/bus", user};
  }
  const char* own = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (!own || !*own) return std::nullopt;
  return SessionBus{own, std::nullopt};
}

}  // namespace quorveld::linux_platform
