#include "tests/sim/sim_ipc.h"

#include <type_traits>

namespace quorveld::sim {

using platform::IpcError;
using platform::IpcErrorKind;
using platform::IpcEvent;
using platform::IpcMessage;
using platform::IpcOddEvent;
using platform::ListenerEvent;

namespace {

class SimMapping final : public platform::SharedMapping {
 public:
  SimMapping(std::shared_ptr<std::byte[]> bytes, void* address, size_t lengthBytes,
             std::shared_ptr<int> mappings)
      : bytes_(std::move(bytes)),
        address_(address),
        lengthBytes_(lengthBytes),
        mappings_(std::move(mappings)) {
    ++*mappings_;
  }
  ~SimMapping() override { --*mappings_; }

  void* address() const override { return address_; }
  size_t lengthBytes() const override { return lengthBytes_; }

 private:
  std::shared_ptr<std::byte[]> bytes_;
  void* address_;
  size_t lengthBytes_;
  std::shared_ptr<int> mappings_;
};

/// Calls `handler` with the message as the transport hands it over.
void deliver(const SimMessage& message, const std::function<void(const IpcEvent&)>& handler) {
  IpcMessage typed;
  for (const auto& [key, value] : message) {
    std::visit(
        [&, &name = key](const auto& item) {
          using T = std::decay_t<decltype(item)>;
          if constexpr (std::is_same_v<T, std::string>) {
            typed.add(name, item.c_str());
          } else if constexpr (std::is_same_v<T, SimMemory*>) {
            typed.add(name, static_cast<platform::SharedMemory*>(item));
          } else {
            typed.add(name, item);
          }
        },
        value);
  }
  handler(&typed);
}

}  // namespace

std::unique_ptr<platform::SharedMapping> SimMemory::map() {
  if (faults_.fails(Op::mapMemory)) return nullptr;
  return std::make_unique<SimMapping>(bytes_, mapsToNull ? nullptr : bytes_.get(), lengthBytes_, mappings_);
}

class SimPeer final : public platform::Peer, public std::enable_shared_from_this<SimPeer> {
 public:
  using Arrival = std::variant<SimMessage, IpcError, IpcOddEvent>;

  SimPeer(const SimIpc& ipc, int32_t pid, uint32_t uid, platform::MainQueue& queue)
      : ipc_(ipc), pid_(pid), uid_(uid), queue_(&queue) {}

  int32_t pid() const override { return pid_; }
  uint32_t uid() const override { return uid_; }
  bool mayAnnounce(int32_t launchedPid) const override {
    return uid_ == 0 || !ipc_.processesOfRoot.contains(launchedPid);
  }
  void setHandler(std::function<void(const IpcEvent&)> handler) override { handler_ = std::move(handler); }
  void resume() override {
    resumed_ = true;
    for (Arrival& arrival : std::exchange(waiting_, {})) arrive(std::move(arrival));
  }

  void arrive(Arrival arrival) {
    if (!queue_) return;
    if (!resumed_) {
      waiting_.push_back(std::move(arrival));
      return;
    }
    queue_->async([self = shared_from_this(), arrival = std::move(arrival)] { self->handle(arrival); });
  }

  void disconnect() override {
    if (!queue_ || !handler_) return;
    const auto held = shared_from_this();
    const auto handler = std::exchange(handler_, nullptr);
    close();
    const IpcError error{IpcErrorKind::connectionInvalid, "Connection invalid"};
    handler(&error);
  }

  /// No event comes any more; also breaks the circle of a handler that holds its peer.
  void close() {
    queue_ = nullptr;
    handler_ = nullptr;
  }

 private:
  void handle(const Arrival& arrival) {
    if (!queue_ || !handler_) return;
    const auto handler = handler_;
    if (const auto* message = std::get_if<SimMessage>(&arrival)) {
      deliver(*message, handler);
    } else if (const auto* odd = std::get_if<IpcOddEvent>(&arrival)) {
      handler(odd);
    } else {
      const auto& error = std::get<IpcError>(arrival);
      handler(&error);
      if (error.kind == IpcErrorKind::connectionInvalid) close();
    }
  }

  const SimIpc& ipc_;
  int32_t pid_;
  uint32_t uid_;
  platform::MainQueue* queue_;
  std::function<void(const IpcEvent&)> handler_;
  bool resumed_ = false;
  std::deque<Arrival> waiting_;
};

class SimListener final : public platform::Listener {
 public:
  SimListener(SimIpc& ipc, platform::MainQueue& queue) : ipc_(ipc), queue_(queue) { ipc_.listener_ = this; }
  ~SimListener() override {
    *alive_ = false;
    for (const auto& peer : peers_) peer->close();
    ipc_.listener_ = nullptr;
  }

  void setHandler(std::function<void(const ListenerEvent&)> handler) override {
    handler_ = std::move(handler);
  }
  void resume() override { resumed_ = true; }

  std::shared_ptr<SimPeer> accept(int32_t pid, uint32_t uid) {
    peers_.push_back(std::make_shared<SimPeer>(ipc_, pid, uid, queue_));
    post([this, peer = peers_.back()] { handler_(ListenerEvent(std::shared_ptr<platform::Peer>(peer))); });
    return peers_.back();
  }

  void post(platform::Task task) {
    queue_.async([this, alive = alive_, task = std::move(task)] {
      if (*alive && resumed_ && handler_) task();
    });
  }

  template <typename Event>
  void postEvent(Event event) {
    post([this, event = std::move(event)] { handler_(ListenerEvent(&event)); });
  }

 private:
  SimIpc& ipc_;
  platform::MainQueue& queue_;
  std::function<void(const ListenerEvent&)> handler_;
  bool resumed_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::vector<std::shared_ptr<SimPeer>> peers_;
};

std::unique_ptr<platform::Listener> SimIpc::listen(std::string_view serviceName, platform::MainQueue& queue) {
  serviceName_ = serviceName;
  return std::make_unique<SimListener>(*this, queue);
}

SimClient SimIpc::connect(int32_t pid, uint32_t uid) {
  return SimClient(listener_->accept(pid, uid));
}

void SimIpc::failListener(IpcErrorKind kind, std::string description) {
  listener_->postEvent(IpcError{kind, std::move(description)});
}

void SimIpc::oddListenerEvent(std::string description) {
  listener_->postEvent(IpcOddEvent{std::move(description)});
}

void SimClient::send(SimMessage message) const {
  peer_->arrive(std::move(message));
}

void SimClient::sendOdd(std::string description) const {
  peer_->arrive(IpcOddEvent{std::move(description)});
}

void SimClient::fail(IpcErrorKind kind, std::string description) const {
  peer_->arrive(IpcError{kind, std::move(description)});
}

}  // namespace quorveld::sim
