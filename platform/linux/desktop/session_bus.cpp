#include "platform/linux/desktop/session_bus.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

namespace quorveld::linux_platform {

namespace {

struct BusAddress {
  std::string address;  // empty: none
  std::optional<uid_t> owner;
};

BusAddress findAddress() {
  const char* chosen = std::getenv("QUORVELD_SESSION_BUS");
  if (chosen && *chosen) return {chosen, std::nullopt};
  uid_t user = 0;
  if (sd_seat_get_active("seat0", nullptr, &user) >= 0) {
    const std::string path = "/run/user/" + std::to_string(user) + "/bus";
    if (::access(path.c_str(), F_OK) == 0) return {"unix:path=" + path, user};
  }
  const char* own = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  return {own ? own : "", std::nullopt};
}

/// Makes the calling thread act as `user` while it lives: a session bus lets nobody else in, root included,
/// and knows its peer by the credentials of connect(2) (unix(7), SO_PEERCRED).
///
/// By the bare system call, as the C library's would change every thread.
class ActingAs {
 public:
  explicit ActingAs(uid_t user) : original_(::geteuid()) {
    if (original_ != 0 || user == 0) return;
    dumpable_ = ::prctl(PR_GET_DUMPABLE);
    switched_ = ::syscall(SYS_setresuid, -1, user, -1) == 0;
  }
  ActingAs(const ActingAs&) = delete;
  ActingAs& operator=(const ActingAs&) = delete;
  ~ActingAs() {
    if (!switched_) return;
    if (::syscall(SYS_setresuid, -1, original_, -1) != 0) {
      std::perror("quorveld: setresuid");
      std::abort();
    }
    // A change of user switches core dumps off (prctl(2)).
    ::prctl(PR_SET_DUMPABLE, dumpable_);
  }

 private:
  uid_t original_;
  int dumpable_ = 0;
  bool switched_ = false;
};

}  // namespace

BusHandle startSessionBus(int& error) {
  const BusAddress found = findAddress();
  if (found.address.empty()) {
    error = -ENOMEDIUM;
    return nullptr;
  }
  sd_bus* raw = nullptr;
  error = sd_bus_new(&raw);
  if (error < 0) return nullptr;
  BusHandle bus(raw);
  error = sd_bus_set_address(raw, found.address.c_str());
  if (error >= 0) error = sd_bus_set_bus_client(raw, true);
  if (error >= 0) {
    const ActingAs identity(found.owner.value_or(::geteuid()));
    error = sd_bus_start(raw);
  }
  return error < 0 ? nullptr : std::move(bus);
}

}  // namespace quorveld::linux_platform
