#include "platform/linux/ipc/ipc_listener.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/base/runtime_directory.h"
#include "platform/linux/ipc/ipc.h"
#include "platform/linux/ipc/ipc_limits.h"

namespace quorveld::linux_platform {

namespace {

using platform::IpcError;
using platform::IpcErrorKind;
using platform::LogLevel;

/// What an accepted client may have caused by itself; the next one may be well.
bool concernsOneClient(int error) {
  return error == EINTR || error == ECONNABORTED || error == EPERM;
}

}  // namespace

std::unique_ptr<platform::Listener> LinuxIpc::listen(std::string_view serviceName,
                                                     platform::MainQueue& queue) {
  return std::make_unique<IpcListener>(serviceName, dynamic_cast<MainEventQueue&>(queue), log_);
}

IpcListener::IpcListener(std::string_view serviceName, MainEventQueue& queue, platform::LogHandle& log)
    : serviceName_(serviceName),
      queue_(queue),
      log_(log),
      context_(std::make_shared<IpcConnectionContext>(queue.loop().event(), log)) {
  context_->forget = [this](IpcConnection& connection) { forget(connection); };
  queue_.onTermination([this, alive = std::weak_ptr(alive_)] {
    if (!alive.expired()) terminate();
  });
}

IpcListener::~IpcListener() {
  closeAll();
  if (!socket_.path.empty()) unlink(socket_.path.c_str());
}

void IpcListener::setHandler(std::function<void(const platform::ListenerEvent&)> handler) {
  handler_ = std::move(handler);
}

void IpcListener::resume() {
  if (acceptSource_) return;
  std::string error;
  if (open(error)) return;
  closeAll();
  log_.write(LogLevel::standard, "Clients can't connect: " + error);
  queue_.async([this, alive = std::weak_ptr(alive_), error] {
    if (!alive.expired()) deliver(IpcErrorKind::connectionInvalid, error);
  });
}

bool IpcListener::open(std::string& error) {
  socket_ = openListeningSocket(runtimeDirectory() + "/" + serviceName_, error);
  if (!socket_.fd) return false;
  sd_event* const event = queue_.loop().event();
  sd_event_source* source = nullptr;
  int result = sd_event_add_io(event, &source, socket_.fd.get(), EPOLLIN, acceptable, this);
  acceptSource_.reset(source);
  if (result >= 0) {
    source = nullptr;
    result = sd_event_add_time(event, &source, CLOCK_MONOTONIC, 0, 0, pauseEnded, this);
    pauseTimer_.reset(source);
  }
  if (result < 0) {
    error = std::string("the event loop refused the socket: ") + strerrordesc_np(-result);
    return false;
  }
  sd_event_source_set_priority(acceptSource_.get(), kClientPriority);
  sd_event_source_set_enabled(pauseTimer_.get(), SD_EVENT_OFF);
  return true;
}

int IpcListener::acceptable(sd_event_source*, int, uint32_t, void* self) noexcept {
  static_cast<IpcListener*>(self)->acceptSome();
  return 0;
}

void IpcListener::acceptSome() {
  for (int i = 0; i < kMaxAcceptsPerTurn; ++i) {
    UniqueFd client(accept4(socket_.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (client) {
      welcome(std::move(client));
    } else if (!concernsOneClient(errno)) {
      if (errno != EAGAIN) pauseAccepting(errno);
      return;
    }
  }
}

void IpcListener::welcome(UniqueFd socket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return;
  if (!admits(credentials.uid)) return;
  auto connection =
      std::make_shared<IpcConnection>(context_, std::move(socket), credentials.pid, credentials.uid);
  connections_.emplace(connection.get(), connection);
  ++peersOfUser_[credentials.uid];
  if (handler_) handler_(std::static_pointer_cast<platform::Peer>(connection));
}

bool IpcListener::admits(uint32_t uid) {
  const auto user = peersOfUser_.find(uid);
  const size_t ofUser = user == peersOfUser_.end() ? 0 : user->second;
  if (connections_.size() < kMaxPeers && ofUser < kMaxPeersPerUser) return true;
  ++refusedSinceLogged_;
  const auto now = std::chrono::steady_clock::now();
  if (refusalLogged_ && now - *refusalLogged_ < kRefusalLogInterval) return false;
  refusalLogged_ = now;
  log_.write(LogLevel::standard, "Refused " + std::to_string(std::exchange(refusedSinceLogged_, 0)) +
                                     " connections, the last one of user " + std::to_string(uid) + " with " +
                                     std::to_string(ofUser) + " of " + std::to_string(connections_.size()));
  return false;
}

void IpcListener::pauseAccepting(int error) {
  sd_event_source_set_enabled(acceptSource_.get(), SD_EVENT_OFF);
  const auto pause = std::chrono::microseconds(kAcceptPause);
  sd_event_source_set_time_relative(pauseTimer_.get(), static_cast<uint64_t>(pause.count()));
  sd_event_source_set_enabled(pauseTimer_.get(), SD_EVENT_ONESHOT);
  deliver(IpcErrorKind::connectionInterrupted, std::string("accept failed: ") + strerrordesc_np(error));
}

int IpcListener::pauseEnded(sd_event_source*, uint64_t, void* self) noexcept {
  sd_event_source_set_enabled(static_cast<IpcListener*>(self)->acceptSource_.get(), SD_EVENT_ON);
  return 0;
}

void IpcListener::forget(IpcConnection& connection) {
  const auto user = peersOfUser_.find(connection.uid());
  if (connections_.erase(&connection) == 0) return;
  if (--user->second == 0) peersOfUser_.erase(user);
}

void IpcListener::terminate() {
  acceptSource_.reset();
  pauseTimer_.reset();
  // Every peer hears of it before any is closed; a handler may close peers of its own.
  const auto connections = connections_;
  for (const auto& [key, connection] : connections) connection->announceTermination();
  closeAll();
}

void IpcListener::closeAll() {
  for (const auto& [key, connection] : std::exchange(connections_, {})) connection->close();
  peersOfUser_.clear();
  acceptSource_.reset();
  pauseTimer_.reset();
  socket_.fd.reset();
}

void IpcListener::deliver(IpcErrorKind kind, std::string description) {
  const IpcError error{kind, std::move(description)};
  if (handler_) handler_(&error);
}

}  // namespace quorveld::linux_platform
