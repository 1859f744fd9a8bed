#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

/// One line of /proc/net/tcp or tcp6.
struct TcpSocket {
  std::string localAddress;  // as the kernel writes it; an IPv4 address within IPv6 as IPv4
  uint16_t localPort = 0;
  std::string remoteAddress;
  uint16_t remotePort = 0;
  unsigned state = 0;
  uint64_t unacknowledgedBytes = 0;
  uint64_t retransmits = 0;
  uint64_t inode = 0;  // 0: nobody has accepted it yet, or it is closed already

  static constexpr unsigned kConnecting = 2;
  static constexpr unsigned kListening = 10;
};
/// Pure; lines that are broken are left out.
std::vector<TcpSocket> parseTcpTable(std::string_view text);

/// "10.0.0.2:80", "[fe80::1]:80"; empty if the address is none.
std::string addressText(const std::string& address, uint16_t port);

/// The path or name that a Unix socket has by itself, by /proc/net/unix: one that was accepted has its
/// listener's. Empty: it has none.
std::string unixSocketName(std::string_view text, uint64_t inode);

}  // namespace kelvane
