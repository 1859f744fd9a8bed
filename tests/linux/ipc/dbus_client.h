#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/base/unique_fd.h"

namespace quorveld::linux_platform {

/// Marshals D-Bus values in either byte order, well-formed or not, as a hostile client would.
class Wire {
 public:
  explicit Wire(char order = 'l') : order_(order) {}

  Wire& align(size_t alignment) {
    while (bytes.size() % alignment != 0) bytes.push_back('\0');
    return *this;
  }
  Wire& byte(uint8_t value) {
    bytes.push_back(static_cast<char>(value));
    return *this;
  }
  Wire& number(uint64_t value, size_t size) {
    align(size);
    for (size_t i = 0; i < size; ++i)
      byte(static_cast<uint8_t>(value >> 8 * (order_ == 'B' ? size - 1 - i : i)));
    return *this;
  }
  Wire& string(std::string_view text) {
    number(text.size(), 4);
    bytes.append(text).push_back('\0');
    return *this;
  }
  Wire& signature(std::string_view text) {
    byte(static_cast<uint8_t>(text.size()));
    bytes.append(text).push_back('\0');
    return *this;
  }
  Wire& entry(std::string_view key, std::string_view type) { return align(8).string(key).signature(type); }

  std::string bytes;

 private:
  char order_;
};

struct WireMessage {
  char order = 'l';
  uint8_t type = 4;  // signal
  uint8_t flags = 1;
  std::string interface = "com.corvix.quorveld";
  std::string member = "Message";
  std::string signature = "a{sv}";
  uint32_t descriptors = 0;
};

inline std::string envelope(const WireMessage& message, const std::string& body) {
  Wire fields(message.order);
  const auto text = [&](uint8_t code, const char* type, const std::string& value) {
    fields.align(8).byte(code).signature(type).string(value);
  };
  text(1, "o", "/com/corvix/quorveld");
  text(2, "s", message.interface);
  text(3, "s", message.member);
  if (!message.signature.empty()) fields.align(8).byte(8).signature("g").signature(message.signature);
  if (message.descriptors) fields.align(8).byte(9).signature("u").number(message.descriptors, 4);
  Wire whole(message.order);
  whole.byte(static_cast<uint8_t>(message.order)).byte(message.type).byte(message.flags).byte(1);
  whole.number(body.size(), 4).number(7, 4).number(fields.bytes.size(), 4);
  whole.bytes += fields.bytes;
  return whole.align(8).bytes + body;
}

/// `entries`: the dictionary's marshalled entries, starting at a multiple of 8.
inline std::string dictionary(const Wire& entries, const WireMessage& message = {}) {
  Wire body(message.order);
  body.number(entries.bytes.size(), 4).align(8);
  return envelope(message, body.bytes + entries.bytes);
}

inline std::string command(int64_t number) {
  Wire entries;
  entries.entry("command", "x").number(static_cast<uint64_t>(number), 8);
  return dictionary(entries);
}

inline constexpr std::string_view kHandshake("\0AUTH EXTERNAL 30\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n", 45);

/// The client's end of a socket, without any manners.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    connected_ = ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  bool connected() const { return connected_; }
  int fd() const { return fd_.get(); }
  void disconnect() { fd_.reset(); }

  /// False when it could not be sent whole without waiting.
  bool send(std::string_view bytes, const std::vector<int>& descriptors = {}) const {
    iovec buffer{const_cast<char*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * 253)> control{};
    msghdr header{};
    header.msg_iov = &buffer;
    header.msg_iovlen = 1;
    if (!descriptors.empty()) {
      header.msg_control = control.data();
      header.msg_controllen = CMSG_SPACE(sizeof(int) * descriptors.size());
      cmsghdr* const part = CMSG_FIRSTHDR(&header);
      part->cmsg_level = SOL_SOCKET;
      part->cmsg_type = SCM_RIGHTS;
      part->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
      std::memcpy(CMSG_DATA(part), descriptors.data(), sizeof(int) * descriptors.size());
    }
    const ssize_t sent = ::sendmsg(fd_.get(), &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(bytes.size());
  }

  std::string received() const {
    std::array<char, 4096> buffer;
    const ssize_t length = ::recv(fd_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    return length > 0 ? std::string(buffer.data(), static_cast<size_t>(length)) : std::string();
  }

 private:
  UniqueFd fd_;
  bool connected_ = false;
};

}  // namespace quorveld::linux_platform
