#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace quorveld::linux_platform {

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using BusHandle = std::unique_ptr<sd_bus, CloseBus>;

/// Starts a connection to the session bus of whoever uses the device: the address in QUORVELD_SESSION_BUS;
/// else the bus of the seat's active user; else the address in DBUS_SESSION_BUS_ADDRESS. Returns at once,
/// with the rest of the connection's set-up to be done by the event loop that it is attached to. Null, and a
/// negative errno in `error`, when there is no bus (-ENOMEDIUM) or it can't be reached.
BusHandle startSessionBus(int& error);

}  // namespace quorveld::linux_platform
