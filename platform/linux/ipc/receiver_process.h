#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/wire/receiver_packets.h"

namespace quorveld::linux_platform {

/// One run of quorveld-receiver, and the channel to it. Never waits for it. Main queue only.
///
/// A client's socket leaves this process in a packet and never by close(2), which would release what lies
/// unread in it here, and may wait for whatever that is.
class ReceiverProcess {
 public:
  /// Starts one. Null, and the reason in `error`, on failure.
  static std::unique_ptr<ReceiverProcess> start(const std::string& guid, std::string& error);
  ~ReceiverProcess();
  ReceiverProcess(const ReceiverProcess&) = delete;
  ReceiverProcess& operator=(const ReceiverProcess&) = delete;

  int channel() const { return channel_.get(); }
  /// Readable once a step has taken longer than a client may make it take (HeldUpTimer).
  int timer() const { return timer_.get(); }
  /// Readable once the process has ended.
  int pidFd() const { return pidFd_.get(); }

  /// The connection that it is at, 0: none.
  uint32_t at() const { return page_->at; }
  /// False while it has only not been given a CPU (proc(5), state R), or has ended.
  bool isHeldUp() const;
  /// True when somebody has sent it SIGSTOP since the last time: it might never go on.
  bool isStopped() const;
  /// Takes note of the timer's end; false when it was set anew meanwhile.
  bool takeTimeout() const;
  /// Has the timer run once more, for a process that is at something and isn't held up.
  void measureAnew() const;

  /// `socket` stays the caller's, and open until the packet has gone or `release` is called.
  void adopt(uint32_t connection, int socket, uint32_t handshake);
  void release(uint32_t connection, UniqueFd socket);
  size_t unsent() const { return waiting_.size(); }
  /// What was to be released and could not be sent yet; it is for another receiver then.
  std::vector<UniqueFd> takeUnsent();
  /// Sends what waits for room in the channel. True when nothing is left.
  bool flush();

  struct Packet {
    PacketHeader header;
    std::string_view bytes;  ///< valid until the next one
    UniqueFd memory;
  };
  enum class Read { packet, nothing, end };
  /// The next packet, if there is one that makes sense; others are dropped.
  Read receive(Packet& packet);

  void kill() const;
  /// Lets it end by itself: without a daemon it has nothing to do.
  void closeChannel() { channel_.reset(); }
  /// How it ended, for people, and nothing of it left; empty while it still runs.
  const std::string& reap();

 private:
  ReceiverProcess() = default;

  struct Outgoing {
    PacketHeader header;
    int socket;      // to be sent
    UniqueFd owned;  // the same one where it is this queue's
  };
  bool spawn(const std::string& guid, std::string& error);
  bool send(const Outgoing& packet);
  void post(Outgoing packet);

  pid_t pid_ = 0;
  UniqueFd pidFd_;
  UniqueFd channel_;
  UniqueFd timer_;
  ReceiverPage* page_ = nullptr;
  std::deque<Outgoing> waiting_;
  std::string howItEnded_;
};

}  // namespace quorveld::linux_platform
