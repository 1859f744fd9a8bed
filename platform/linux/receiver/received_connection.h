#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/receiver/held_up.h"
#include "platform/linux/wire/dbus_handshake.h"
#include "platform/linux/wire/dbus_message.h"
#include "platform/linux/wire/receiver_packets.h"

namespace quorveld::linux_platform {

/// Where a connection's turn puts what it has found.
class ReceivedMessages {
 public:
  virtual ~ReceivedMessages() = default;
  /// A whole, well-formed message, and the descriptor that came with it, or -1.
  virtual void add(uint32_t connection, std::string_view frame, MemoryState state, int memory) = 0;
};

/// One client, as a receiver sees it.
///
/// What is not whole yet stays in the kernel, so that another receiver can go on where this one ended. Two
/// beginnings of a message are kept in `held_` after all: one whose descriptors came ahead of its last bytes,
/// since the kernel shows nothing behind descriptors that nobody has taken; and one that is not whole for
/// long, since small pieces of it may fill the client's socket, which then has no room for the rest.
class ReceivedConnection {
 public:
  ReceivedConnection(uint32_t number, UniqueFd socket, std::string_view guid, HandshakeState state);

  uint32_t number() const { return number_; }
  int socket() const { return socket_.get(); }
  HandshakeState handshake() const { return handshake_.state(); }
  bool greeted() const { return handshake_.state() == HandshakeState::done; }

  enum class Next {
    wait,     ///< for the client to send more
    again,    ///< there may be more
    waitBut,  ///< for the client; call keepBeginning and give another turn when it doesn't for long
  };
  /// Reads and passes on at most kReadBytesPerTurn.
  Next takeTurn(HeldUpTimer& timer, ReceivedMessages& messages);
  void keepBeginning() { keepsBeginning_ = true; }
  /// The client sends no more; what it has sent still counts.
  void hangUp() { hungUp_ = true; }
  /// Set by a turn: the connection's end.
  const std::optional<EndReason>& ended() const { return ended_; }

  /// Closes what it holds, which may take as long as the client likes.
  void close(HeldUpTimer& timer);

 private:
  struct Measured {
    size_t bytes = 0;           ///< handshake lines and whole messages
    size_t handshakeBytes = 0;  ///< of these; they have had their effect
    bool badBehind = false;     ///< what follows is no message
  };
  Measured measure(std::string_view bytes);
  size_t measureHandshake(std::string_view bytes);
  /// Takes `count` bytes off the socket to `target`, with the descriptors that come along; false at its end.
  bool consume(char* target, size_t count);
  void pass(std::string_view bytes, ReceivedMessages& messages);
  void passOne(std::string_view frame, ReceivedMessages& messages);
  void passDictionary(const DBusEnvelope& envelope, std::string_view frame, ReceivedMessages& messages);
  void answerHello(const DBusEnvelope& envelope);
  bool send(std::string_view bytes) const;
  void end(EndReason reason) {
    if (!ended_) ended_ = reason;
  }

  uint32_t number_;
  UniqueFd socket_;
  DBusHandshake handshake_;
  uint32_t lastSerial_ = 0;
  bool hungUp_ = false;
  bool keepsBeginning_ = false;
  std::optional<EndReason> ended_;
  std::vector<char> held_;
  std::vector<UniqueFd> descriptors_;
  std::vector<UniqueFd> unwanted_;  // closed at the end of the turn
};

}  // namespace quorveld::linux_platform
