#include "platform/linux/wire/dbus_handshake.h"

#include <algorithm>

#include "platform/linux/wire/message_limits.h"

namespace quorveld::linux_platform {

namespace {

constexpr std::string_view kRejected = "REJECTED EXTERNAL ANONYMOUS\r\n";
constexpr std::string_view kLineEnd = "\r\n";

/// The first word of `line`, which loses it and the blank behind it.
std::string_view takeToken(std::string_view& line) {
  const std::string_view word = line.substr(0, line.find(' '));
  line.remove_prefix(std::min(line.size(), word.size() + 1));
  return word;
}

}  // namespace

DBusHandshake::DBusHandshake(std::string_view guid, HandshakeState state) : state_(state) {
  okLine_.append("OK ").append(guid).append(kLineEnd);
}

DBusHandshake::Step DBusHandshake::take(std::string_view bytes) {
  if (bytes.empty()) return {Status::needsMore, 0, {}};
  if (state_ == HandshakeState::nulByte) {
    if (bytes[0] != '\0') return {Status::refused, 0, {}};
    state_ = HandshakeState::waiting;
    return {Status::goesOn, 1, {}};
  }
  const size_t end = bytes.find(kLineEnd);
  const size_t length = end == std::string_view::npos ? bytes.size() : end + kLineEnd.size();
  if (takenBytes_ + length > kMaxHandshakeBytes) return {Status::refused, 0, {}};
  if (end == std::string_view::npos) return {Status::needsMore, 0, {}};
  takenBytes_ += length;

  std::string_view line = bytes.substr(0, end);
  const std::string_view command = takeToken(line);
  if (state_ == HandshakeState::accepted) {
    if (command == "BEGIN") {
      state_ = HandshakeState::done;
      return {Status::done, length, {}};
    }
    if (command == "NEGOTIATE_UNIX_FD") return {Status::goesOn, length, "AGREE_UNIX_FD\r\n"};
  } else {
    if (command == "BEGIN") return {Status::refused, length, {}};
    if (command == "AUTH") return authenticate(line, length);
    if (command == "DATA" && state_ == HandshakeState::data) return accept(length);
  }
  if (command == "CANCEL" || command == "ERROR") {
    state_ = HandshakeState::waiting;
    return {Status::goesOn, length, kRejected};
  }
  return {Status::goesOn, length, "ERROR\r\n"};
}

DBusHandshake::Step DBusHandshake::authenticate(std::string_view arguments, size_t consumedBytes) {
  const std::string_view mechanism = takeToken(arguments);
  state_ = HandshakeState::waiting;
  if (mechanism != "EXTERNAL" && mechanism != "ANONYMOUS") return {Status::goesOn, consumedBytes, kRejected};
  if (!arguments.empty()) return accept(consumedBytes);
  state_ = HandshakeState::data;
  return {Status::goesOn, consumedBytes, "DATA\r\n"};
}

DBusHandshake::Step DBusHandshake::accept(size_t consumedBytes) {
  state_ = HandshakeState::accepted;
  return {Status::goesOn, consumedBytes, okLine_};
}

}  // namespace quorveld::linux_platform
