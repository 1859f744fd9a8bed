#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/receiver/held_up.h"
#include "platform/linux/receiver/received_connection.h"
#include "platform/linux/wire/receiver_packets.h"

namespace quorveld::linux_platform {

/// From a connection to the end of its handshake.
inline constexpr std::chrono::milliseconds kHandshakeDeadline{5000};
/// How long the beginning of a message stays in the kernel. A whole one is there at once.
inline constexpr std::chrono::milliseconds kBeginningStays{50};

/// The loop of a receiver. It waits for nobody but the daemon, which it can't do without.
class Receiver final : private ReceivedMessages {
 public:
  /// The descriptors stay the caller's. `guid` names the server to D-Bus clients.
  Receiver(int channel, ReceiverPage& page, int timer, std::string guid);

  /// Serves; the process ends when the daemon has gone.
  [[noreturn]] void run();

 private:
  using Clock = std::chrono::steady_clock;
  struct Deadline {
    Clock::time_point at;
    uint32_t connection;
  };
  using Deadlines = std::deque<Deadline>;  // in their order; some are void by now

  void takePacket();
  void adopt(uint32_t number, UniqueFd socket, uint32_t state);
  void release(uint32_t number, std::vector<UniqueFd> sockets);
  void wake(uint32_t number, uint32_t events);
  void giveTurns();
  void giveTurn(uint32_t number);
  void end(uint32_t number, EndReason reason);
  void endLateGreetings();
  void keepOldBeginnings();
  static bool isPassed(const Deadlines& deadlines);
  /// Takes the first deadline off; its connection, null when that has gone.
  ReceivedConnection* takeFirst(Deadlines& deadlines);
  /// Until something has to be done, for epoll_wait(2).
  int waitMs() const;

  void add(uint32_t connection, std::string_view frame, MemoryState state, int memory) override;
  void flush();
  /// Waits for as long as the daemon has not taken the packets before; ends the process when it has gone.
  void send(const PacketHeader& header, std::string_view bytes = {}, int fd = -1) const;

  int channel_;
  HeldUpTimer timer_;
  std::string guid_;
  UniqueFd epoll_;
  std::map<uint32_t, ReceivedConnection> connections_;
  std::vector<uint32_t> turns_;  // those with something to read, each once
  Deadlines greetings_;
  Deadlines beginnings_;
  uint32_t batched_ = 0;  // the connection whose messages are in `batch_`
  std::string batch_;
};

}  // namespace quorveld::linux_platform
