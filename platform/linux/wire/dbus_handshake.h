#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quorveld::linux_platform {

/// How far a handshake has come. Another reader can go on from here.
enum class HandshakeState : uint32_t { nulByte, waiting, data, accepted, done };

/// The server's part of D-Bus's authentication, from bytes to bytes.
///
/// Whoever can open the socket may speak, so any EXTERNAL or ANONYMOUS claim is accepted unread: who the
/// client is, the kernel says (SO_PEERCRED), not the client.
class DBusHandshake {
 public:
  /// `guid`: 32 hexadecimal digits.
  DBusHandshake(std::string_view guid, HandshakeState state);

  enum class Status {
    needsMore,  ///< the bytes hold no whole line
    goesOn,     ///< one line was taken; there may be more
    done,       ///< messages follow
    refused,    ///< this client speaks something else
  };
  struct Step {
    Status status;
    size_t consumedBytes;
    std::string_view reply;  ///< to be sent now; valid until the object is destroyed
  };

  /// Takes one line from the start of `bytes`. Not once it is done.
  Step take(std::string_view bytes);

  HandshakeState state() const { return state_; }

 private:
  Step authenticate(std::string_view arguments, size_t consumedBytes);
  Step accept(size_t consumedBytes);

  HandshakeState state_;
  size_t takenBytes_ = 0;
  std::string okLine_;
};

}  // namespace quorveld::linux_platform
