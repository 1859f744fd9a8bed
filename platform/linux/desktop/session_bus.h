#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace quorveld::linux_platform {

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using BusHandle = std::unique_ptr<sd_bus, CloseBus>;

struct UnrefMessage {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, UnrefMessage>;

struct UnrefSlot {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using BusSlot = std::unique_ptr<sd_bus_slot, UnrefSlot>;

/// Starts a connection to the session bus of whoever uses the device: the address in QUORVELD_SESSION_BUS;
/// else the bus of the seat's active user; else the address in DBUS_SESSION_BUS_ADDRESS. Returns at once,
/// with the rest of the connection's set-up to be done by the event loop that it is attached to. Null, and a
/// negative errno in `error`, when there is no bus (-ENOMEDIUM) or it can't be reached.
BusHandle startSessionBus(int& error);

}  // namespace quorveld::linux_platform
