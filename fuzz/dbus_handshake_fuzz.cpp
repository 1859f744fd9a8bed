// A client's half of D-Bus's authentication. What comes of it is the same however the bytes are cut up on
// their way.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/linux/wire/dbus_handshake.h"

namespace {

using quorveld::linux_platform::DBusHandshake;
using quorveld::linux_platform::HandshakeState;
using Status = DBusHandshake::Status;

struct Outcome {
  Status status = Status::needsMore;
  size_t consumed = 0;
  std::string replies;

  bool operator==(const Outcome&) const = default;
};

/// Takes `bytes` as they come in, `pieceBytes` at a time.
Outcome converse(std::string_view bytes, size_t pieceBytes) {
  DBusHandshake handshake("0123456789abcdef0123456789abcdef", HandshakeState::nulByte);
  Outcome outcome;
  for (size_t there = 0; there < bytes.size();) {
    there = std::min(bytes.size(), there + pieceBytes);
    do {
      const std::string_view waiting = bytes.substr(outcome.consumed, there - outcome.consumed);
      const DBusHandshake::Step step = handshake.take(waiting);
      if (step.consumedBytes > waiting.size()) std::abort();
      if (step.status == Status::goesOn && step.consumedBytes == 0) std::abort();
      outcome.status = step.status;
      outcome.consumed += step.consumedBytes;
      outcome.replies += step.reply;
    } while (outcome.status == Status::goesOn);
    if (outcome.status != Status::needsMore) break;
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const Outcome whole = converse(bytes, size + 1);
  const Outcome single = converse(bytes, 1);
  // What is too long is refused when it is seen; a line that is whole by then has been taken.
  if (whole.status == Status::done && whole != single) std::abort();
  if (single.status == Status::done && whole != single) std::abort();
  return 0;
}
