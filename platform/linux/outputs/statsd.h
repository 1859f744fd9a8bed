#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/linux/base/unique_fd.h"

namespace quorveld::linux_platform {

/// `key` with what separates StatsD's fields, blanks and control characters replaced by '_'.
std::string statsdName(std::string_view key);

/// Where `target` names a host and a port: both, brackets around the host taken away; else both empty.
struct HostAndPort {
  std::string host;
  std::string port;
};
HostAndPort parseHostAndPort(std::string_view target);

/// Sends StatsD datagrams, each once and never waiting: what the socket doesn't take is lost.
///
/// One thread at a time.
class StatsdSender {
 public:
  /// To nobody.
  StatsdSender() = default;

  /// To `target`: the absolute path of a datagram socket, or host:port, whose look-up takes as long as the
  /// resolver does. To nobody, and the reason in `failure`, when it can't be used.
  StatsdSender(std::string_view target, std::string& failure);

  void gauge(std::string_view key, int64_t value);
  void counter(std::string_view key, int64_t amount);
  void timing(std::string_view key, double valueMs);

 private:
  std::string resolvePath(std::string_view path);
  std::string resolveHost(std::string_view target);
  void send(const std::string& datagram);

  UniqueFd socket_;
  sockaddr_storage address_{};
  socklen_t addressLength_ = 0;
};

}  // namespace quorveld::linux_platform
