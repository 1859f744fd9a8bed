#include "platform/linux/desktop/render_server.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/utf8.h"
#include "platform/linux/queues/event_loop.h"

namespace quorveld::linux_platform {

namespace {

constexpr uint64_t kReplyTimeoutUs = 2'000'000;

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";

int newCall(sd_bus* bus, const char* method, BusMessage& call) {
  sd_bus_message* raw = nullptr;
  const int result = sd_bus_message_new_method_call(bus, &raw, kService, kPath, kService, method);
  call.reset(raw);
  return result;
}

int newNotify(sd_bus* bus, uint32_t replacedId, const std::string& text, BusMessage& call) {
  const int result = newCall(bus, "Notify", call);
  if (result < 0) return result;
  // Summary alone: a body would be read as markup. Transient: no history is kept of it.
  return sd_bus_message_append(call.get(), "susssasa{sv}i", "quorveld", replacedId, "", text.c_str(), "", 0,
                               1, "transient", "b", 1, -1);
}

int newClose(sd_bus* bus, uint32_t id, BusMessage& call) {
  const int result = newCall(bus, "CloseNotification", call);
  return result < 0 ? result : sd_bus_message_append(call.get(), "u", id);
}

}  // namespace

/// One connection to the bus and the message that it keeps on the screen.
class ScreenConnection {
 public:
  ScreenConnection(BusHandle bus, bool& complained) : complained_(complained), bus_(std::move(bus)) {}

  /// False once the bus or a call has failed: time for a new connection.
  bool usable() const { return bus_ && sd_bus_is_open(bus_.get()) > 0; }

  /// Puts `text` in place of what is shown; nothing clears it.
  void show(std::optional<std::string> text) {
    wanted_ = std::move(text);
    unsent_ = true;
    if (!pending_) send();
  }

 private:
  void send() {
    if (!unsent_ || !bus_) return;
    unsent_ = false;
    if (!wanted_ && shownId_ == 0) return;
    BusMessage call;
    const int made = wanted_ ? newNotify(bus_.get(), shownId_, *wanted_, call)
                             : newClose(bus_.get(), std::exchange(shownId_, 0), call);
    sd_bus_slot* slot = nullptr;
    const int sent = made < 0 ? made
                              : sd_bus_call_async(bus_.get(), &slot, call.get(), wanted_ ? notified : closed,
                                                  this, kReplyTimeoutUs);
    pending_.reset(slot);
    if (sent < 0) fail(std::strerror(-sent));
  }

  static int notified(sd_bus_message* reply, void* self, sd_bus_error*) noexcept {
    static_cast<ScreenConnection*>(self)->takeId(reply);
    return 0;
  }

  static int closed(sd_bus_message*, void* self, sd_bus_error*) noexcept {
    // A refusal means that the user has closed it already.
    auto& connection = *static_cast<ScreenConnection*>(self);
    connection.pending_.reset();
    connection.send();
    return 0;
  }

  void takeId(sd_bus_message* reply) {
    pending_.reset();
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
      return fail(error->message ? error->message : error->name);
    }
    if (sd_bus_message_read(reply, "u", &shownId_) < 0) return fail("the answer holds no identifier");
    complained_ = false;
    send();
  }

  void fail(const char* reason) {
    if (!complained_) logDefault("On-screen message not shown: %s", reason);
    complained_ = true;
    bus_.reset();
  }

  bool& complained_;
  BusHandle bus_;
  BusSlot pending_;  // the call under way
  std::optional<std::string> wanted_;
  bool unsent_ = false;
  uint32_t shownId_ = 0;  // 0: nothing is shown
};

namespace {

class Port final : public platform::RenderPort {
 public:
  explicit Port(std::shared_ptr<ScreenConnection> connection) : connection_(std::move(connection)) {}

  void setDebugMessage(const char* text) override {
    connection_->show(text ? std::optional(wellFormedUtf8(text)) : std::nullopt);
  }

 private:
  std::shared_ptr<ScreenConnection> connection_;
};

}  // namespace

LinuxRenderServer::LinuxRenderServer() = default;
LinuxRenderServer::~LinuxRenderServer() = default;

std::unique_ptr<platform::RenderPort> LinuxRenderServer::port() {
  if (!queue_) return nullptr;
  if (!connection_ || !connection_->usable()) {
    connection_.reset();
    int error = 0;
    BusHandle bus = startSessionBus(error);
    if (bus) error = sd_bus_attach_event(bus.get(), loopOf(*queue_).event(), kTaskPriority);
    if (error < 0) {
      if (error != -ENOMEDIUM && !complained_) logDefault("No session bus: %s", std::strerror(-error));
      complained_ |= error != -ENOMEDIUM;
      return nullptr;
    }
    connection_ = std::make_shared<ScreenConnection>(std::move(bus), complained_);
  }
  return std::make_unique<Port>(connection_);
}

}  // namespace quorveld::linux_platform
