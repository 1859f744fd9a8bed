#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/ipc/ipc_connection.h"
#include "platform/linux/ipc/receiver_process.h"
#include "platform/linux/queues/event_loop.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// Who reads a user's connections: a receiver while there is something to read, another one after it when a
/// client holds it up. Main queue only.
///
/// Invariant: while a receiver is being ended (`ending_`) no other one is started: two would read the same
/// sockets. What is to be served or released meanwhile waits for the next.
class UserReceiver final : public ConnectionServer {
 public:
  /// `dismissed` is called with each connection that has ended. `guid` names the daemon to D-Bus clients, and
  /// `user` the user to people; what is said of him is said on behalf of `uid`.
  /// `allLeftBehind` counts the receivers of all users that were ended and have not.
  UserReceiver(sd_event* event, platform::Logs& logs, std::string guid, uint32_t uid, std::string user,
               size_t& allLeftBehind, std::function<void(const IpcConnection&)> dismissed);
  ~UserReceiver() override;

  void add(std::shared_ptr<IpcConnection> connection);
  /// Has a socket closed that nobody was let in by.
  void refuse(UniqueFd socket);

  /// Sockets that wait to be closed elsewhere.
  size_t unreleased() const { return unreleased_.size() + (process_ ? process_->unsent() : 0); }

  /// True when it can go: nobody is connected, and no process of it is left.
  bool isIdle() const {
    return connections_.empty() && !process_ && leftBehind_.empty() && unreleased_.empty();
  }

  /// A child has ended, or was stopped: has the next process go on if it was this one that was stopped.
  void replaceStopped();
  /// Lets a process go that only waits for the next client; false when there is none such.
  bool retire();

  /// Tells every connection that the end is near, then closes them all.
  void announceTermination();
  void closeAll();

  void serve(IpcConnection& connection) override;
  void dismiss(IpcConnection& connection, UniqueFd socket) override;

 private:
  using Clock = std::chrono::steady_clock;
  struct LeftBehind {
    std::unique_ptr<ReceiverProcess> process;
    EventSource ended;
  };

  static int channelReady(sd_event_source*, int, uint32_t events, void* self) noexcept;
  static int heldUp(sd_event_source*, int, uint32_t, void* self) noexcept;
  static int processEnded(sd_event_source*, int, uint32_t, void* self) noexcept;
  static int leftBehindEnded(sd_event_source*, int fd, uint32_t, void* self) noexcept;
  static int timePassed(sd_event_source*, uint64_t, void* self) noexcept;

  void say(platform::LogLevel level, const std::string& line);

  /// A process that takes up everything; or later, where there can't be one now.
  void start();
  void releaseAll();
  void updateWriting();
  EventSource watch(int fd, sd_event_io_handler_t handler);
  void stopWatching();
  void wakeAfter(std::chrono::milliseconds time);

  void take(ReceiverProcess::Packet& packet);
  void takeEnd(IpcConnection& connection, EndReason reason);

  void endHeldUp();
  void noteEnd();
  /// Ends the connection that the process is at, which may have it in a state that nobody knows.
  void endCurrent(const char* reason);
  void killAndReplace();
  /// The old one reads no more: the next takes over.
  void replace();
  void leaveBehind();

  sd_event* const event_;
  platform::Logs& logs_;
  const std::string guid_;
  const uint32_t uid_;
  const std::string user_;
  size_t& allLeftBehind_;
  const std::function<void(const IpcConnection&)> dismissed_;
  std::map<uint32_t, std::shared_ptr<IpcConnection>> connections_;
  std::unique_ptr<ReceiverProcess> process_;
  EventSource channelSource_;
  EventSource heldUpSource_;
  EventSource endSource_;
  EventSource timeSource_;
  bool ending_ = false;               // killed, or found ended
  bool channelEnded_ = false;         // and its process soon will
  std::vector<UniqueFd> unreleased_;  // of ended connections, for the next receiver to close
  std::vector<LeftBehind> leftBehind_;
  Clock::time_point mayStartAt_;
  int endsByThemselves_ = 0;
};

}  // namespace quorveld::linux_platform
