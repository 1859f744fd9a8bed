#include "platform/linux/ipc/ipc_listener.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <array>
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

/// Whose lines those about the receiver of refused clients are: nobody's, who has a share of the log too.
constexpr uint32_t kNobody = UINT32_MAX;

/// What an accepted client may have caused by itself; the next one may be well.
bool concernsOneClient(int error) {
  return error == EINTR || error == ECONNABORTED || error == EPERM;
}

/// 32 hexadecimal digits that name this server to D-Bus clients.
std::string newGuid() {
  sd_id128_t id{};
  std::array<char, SD_ID128_STRING_MAX> text;
  if (sd_id128_randomize(&id) < 0) id.bytes[0] = 1;  // any will do: clients only compare it with itself
  return sd_id128_to_string(id, text.data());
}

/// As many connections as there may be descriptors for, some of these being kept for everything else.
ClientShares sharesOfThisProcess() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const auto descriptors = static_cast<size_t>(limit.rlim_cur);
  const size_t places = (descriptors - std::min(kReservedDescriptors, descriptors / 2)) / kDescriptorsOfPeer;
  const size_t used = std::min(kMaxPeers, places);
  return {used, std::min(kPeersOfRootAlone, used / 8), kMaxUsers};
}

/// Who has connected, as the kernel attests. 0, or an errno value when this process lacks descriptors.
int clientProcessOf(int socket, ClientProcess& process) {
  constexpr int kPeerPidFd = 77;  // SO_PEERPIDFD, since Linux 6.5
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return errno;
  process.pid = credentials.pid;
  process.uid = credentials.uid;
  int fd = -1;
  length = sizeof fd;
  const bool isKnown = getsockopt(socket, SOL_SOCKET, kPeerPidFd, &fd, &length) == 0;
  // Before, nobody knows whether the pid is still the client's; it was a moment ago.
  if (!isKnown && (errno == ENOPROTOOPT || errno == EOPNOTSUPP))
    fd = static_cast<int>(syscall(SYS_pidfd_open, credentials.pid, 0));
  process.pidFd.reset(fd);
  process.hasEnded = fd < 0 && (errno == ESRCH || errno == EINVAL);
  return fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM) ? errno : 0;
}

}  // namespace

std::unique_ptr<platform::Listener> LinuxIpc::listen(std::string_view serviceName,
                                                     platform::MainQueue& queue) {
  return std::make_unique<IpcListener>(serviceName, dynamic_cast<MainEventQueue&>(queue), logs_);
}

IpcListener::IpcListener(std::string_view serviceName, MainEventQueue& queue, platform::Logs& logs)
    : serviceName_(serviceName),
      queue_(queue),
      logs_(logs),
      log_(logs.handle("com.corvix.quorvel", "")),
      scratch_(std::make_shared<IpcScratch>(log_)),
      shares_(sharesOfThisProcess()),
      guid_(newGuid()),
      refusals_(makeReceiver(kNobody, "refused clients")) {
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
    result = sd_event_add_time(event, &source, CLOCK_MONOTONIC, 0, kPauseAccuracyUs, pauseEnded, this);
    pauseTimer_.reset(source);
  }
  if (result >= 0) {
    source = nullptr;
    result = sd_event_add_signal(event, &source, SIGCHLD, childChanged, this);
    childSource_.reset(source);
    if (result == -EBUSY) result = 0;  // another listener of this loop does so
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
    if (refusals_->unreleased() >= kMaxRefusedWaiting) return restFor(kRefusalsPause);
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
  ClientProcess process;
  const int error = clientProcessOf(socket.get(), process);
  if (error != 0) {
    refuse(std::move(socket));
    return pauseAccepting(error);
  }
  if (!admits(process)) return refuse(std::move(socket));
  lastNumber_ = lastNumber_ + 1 < kNoConnection ? lastNumber_ + 1 : 1;
  UserReceiver& receiver = receiverOf(process.uid);
  shares_.add(process.uid, process.pid);
  const auto connection = std::make_shared<IpcConnection>(lastNumber_, std::move(socket), std::move(process),
                                                          receiver, queue_.loop().event(), scratch_);
  receiver.add(connection);
  if (handler_) handler_(std::static_pointer_cast<platform::Peer>(connection));
}

bool IpcListener::admits(const ClientProcess& process) {
  const bool isKnown = process.uid == 0 || users_.contains(process.uid);
  const bool mayHaveReceiver = isKnown || leftBehind_ < kMaxReceiversLeftBehindOfAll;
  if (mayHaveReceiver && shares_.admits(process.uid, process.pid)) return true;
  ++refusedSinceLogged_;
  const auto now = std::chrono::steady_clock::now();
  if (refusalLogged_ && now - *refusalLogged_ < kRefusalLogInterval) return false;
  refusalLogged_ = now;
  log_.write(LogLevel::standard, "Refused " + std::to_string(std::exchange(refusedSinceLogged_, 0)) +
                                     " connections, the last one of user " + std::to_string(process.uid) +
                                     " with " + std::to_string(shares_.of(process.uid)) + " of " +
                                     std::to_string(shares_.all()));
  return false;
}

std::unique_ptr<UserReceiver> IpcListener::makeReceiver(uint32_t uid, std::string user) {
  return std::make_unique<UserReceiver>(
      queue_.loop().event(), logs_, guid_, uid, std::move(user), leftBehind_,
      [this](const IpcConnection& connection) { shares_.remove(connection.uid(), connection.pid()); });
}

UserReceiver& IpcListener::receiverOf(uint32_t uid) {
  if (const auto user = users_.find(uid); user != users_.end()) return *user->second;
  makeRoom();
  return *users_.emplace(uid, makeReceiver(uid, "user " + std::to_string(uid))).first->second;
}

void IpcListener::makeRoom() {
  std::erase_if(users_, [](const auto& user) { return user.second->isIdle(); });
  if (users_.size() < kMaxUsers) return;
  for (const auto& [uid, user] : users_) {
    if (user->retire()) return;
  }
}

void IpcListener::refuse(UniqueFd socket) {
  refusals_->refuse(std::move(socket));
}

void IpcListener::pauseAccepting(int error) {
  restFor(kAcceptPause);
  deliver(IpcErrorKind::connectionInterrupted, std::string("accept failed: ") + strerrordesc_np(error));
}

void IpcListener::restFor(std::chrono::milliseconds pause) {
  sd_event_source_set_enabled(acceptSource_.get(), SD_EVENT_OFF);
  const auto delay = std::chrono::microseconds(pause).count();
  sd_event_source_set_time_relative(pauseTimer_.get(), static_cast<uint64_t>(delay));
  sd_event_source_set_enabled(pauseTimer_.get(), SD_EVENT_ONESHOT);
}

int IpcListener::childChanged(sd_event_source*, const signalfd_siginfo*, void* self) noexcept {
  IpcListener& listener = *static_cast<IpcListener*>(self);
  for (const auto& [uid, user] : listener.users_) user->replaceStopped();
  listener.refusals_->replaceStopped();
  return 0;
}

int IpcListener::pauseEnded(sd_event_source*, uint64_t, void* self) noexcept {
  sd_event_source_set_enabled(static_cast<IpcListener*>(self)->acceptSource_.get(), SD_EVENT_ON);
  return 0;
}

void IpcListener::terminate() {
  acceptSource_.reset();
  pauseTimer_.reset();
  childSource_.reset();
  // Every peer hears of it before any is closed.
  for (const auto& [uid, user] : users_) user->announceTermination();
  closeAll();
}

void IpcListener::closeAll() {
  acceptSource_.reset();
  pauseTimer_.reset();
  childSource_.reset();
  socket_.fd.reset();
  for (const auto& [uid, user] : users_) user->closeAll();
  refusals_->closeAll();
}

void IpcListener::deliver(IpcErrorKind kind, std::string description) {
  const IpcError error{kind, std::move(description)};
  if (handler_) handler_(&error);
}

}  // namespace quorveld::linux_platform
