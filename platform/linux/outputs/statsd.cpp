#include "platform/linux/outputs/statsd.h"

#include <netdb.h>
#include <sys/un.h>

#include <array>
#include <charconv>
#include <cstring>
#include <memory>

#include "platform/linux/base/file_bytes.h"

namespace quorveld::linux_platform {

namespace {

UniqueFd datagramSocket(int family) {
  return UniqueFd(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

}  // namespace

std::string statsdName(std::string_view key) {
  std::string name(key);
  for (char& c : name) {
    const bool control = static_cast<unsigned char>(c) <= ' ' || c == 0x7F;
    if (control || std::strchr(":|@#,", c)) c = '_';
  }
  return name;
}

HostAndPort parseHostAndPort(std::string_view target) {
  const size_t colon = target.rfind(':');
  if (colon == std::string_view::npos) return {};
  std::string_view host = target.substr(0, colon);
  const std::string_view port = target.substr(colon + 1);
  if (host.starts_with('[') && host.ends_with(']')) {
    host.remove_prefix(1);
    host.remove_suffix(1);
  }
  if (host.empty() || port.empty()) return {};
  return {std::string(host), std::string(port)};
}

StatsdSender::StatsdSender(std::string_view target, std::string& failure) : StatsdSender() {
  failure = target.starts_with('/') ? resolvePath(target) : resolveHost(target);
  if (!failure.empty()) socket_.reset();
}

/// Empty, or why the target can't be used; so is `resolveHost`'s.
std::string StatsdSender::resolvePath(std::string_view path) {
  auto& address = reinterpret_cast<sockaddr_un&>(address_);
  if (path.size() >= sizeof address.sun_path) {
    return "the path is longer than " + std::to_string(sizeof address.sun_path - 1) + " bytes";
  }
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  addressLength_ = sizeof address;
  socket_ = datagramSocket(AF_UNIX);
  return socket_ ? "" : lastError().message();
}

std::string StatsdSender::resolveHost(std::string_view target) {
  const HostAndPort parts = parseHostAndPort(target);
  if (parts.host.empty()) return "neither a socket's path nor host:port";
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (const int code = ::getaddrinfo(parts.host.c_str(), parts.port.c_str(), &hints, &found)) {
    return ::gai_strerror(code);
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
  std::memcpy(&address_, found->ai_addr, found->ai_addrlen);
  addressLength_ = found->ai_addrlen;
  socket_ = datagramSocket(found->ai_family);
  return socket_ ? "" : lastError().message();
}

void StatsdSender::gauge(std::string_view key, int64_t value) {
  const std::string name = statsdName(key);
  // A gauge with a sign is a change to its value: a negative one is reached by way of 0.
  const std::string reset = value < 0 ? name + ":0|g\n" : "";
  send(reset + name + ":" + std::to_string(value) + "|g");
}

void StatsdSender::counter(std::string_view key, int64_t amount) {
  send(statsdName(key) + ":" + std::to_string(amount) + "|c");
}

void StatsdSender::timing(std::string_view key, double valueMs) {
  std::array<char, 400> digits;  // fixed notation of the largest double takes 309
  const auto end =
      std::to_chars(digits.data(), digits.data() + digits.size(), valueMs, std::chars_format::fixed);
  send(statsdName(key) + ":" + std::string(digits.data(), end.ptr) + "|ms");
}

void StatsdSender::send(const std::string& datagram) {
  if (!socket_) return;
  // Nobody listening and a full queue are both everyday: the text file has the same figures.
  (void)::sendto(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address_), addressLength_);
}

}  // namespace quorveld::linux_platform
