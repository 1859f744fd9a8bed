#include "kelvane/capture/net_tables.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace kelvane {
namespace {

template <typename Take>
void eachTableLine(std::string_view text, Take take) {
  for (bool isHeading = true; !text.empty(); isHeading = false) {
    const size_t end = text.find('\n');
    if (!isHeading) take(std::string(text.substr(0, end)));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
}

std::string withoutMapping(const char* address) {
  constexpr std::string_view kMapped = "0000000000000000FFFF0000";
  const std::string_view text = address;
  return std::string(text.starts_with(kMapped) ? text.substr(kMapped.size()) : text);
}

}  // namespace

std::vector<TcpSocket> parseTcpTable(std::string_view text) {
  std::vector<TcpSocket> sockets;
  eachTableLine(text, [&](const std::string& line) {
    char local[33];
    char remote[33];
    TcpSocket socket;
    const int got = sscanf(line.c_str(),
                           "%*d: %32[0-9A-F]:%" SCNx16 " %32[0-9A-F]:%" SCNx16 " %x %" SCNx64
                           ":%*x %*x:%*x %" SCNx64 " %*u %*u %" SCNu64,
                           local, &socket.localPort, remote, &socket.remotePort, &socket.state,
                           &socket.unacknowledgedBytes, &socket.retransmits, &socket.inode);
    if (got != 8) return;
    socket.localAddress = withoutMapping(local);
    socket.remoteAddress = withoutMapping(remote);
    sockets.push_back(std::move(socket));
  });
  return sockets;
}

std::string addressText(const std::string& address, uint16_t port) {
  // Words of 32 bits, each as a number of this machine.
  std::array<uint32_t, 4> words{};
  const size_t count = address.size() / 8;
  if (address.size() % 8 != 0 || (count != 1 && count != words.size())) return {};
  for (size_t i = 0; i < count; i++) {
    if (sscanf(address.c_str() + 8 * i, "%8" SCNx32, &words[i]) != 1) return {};
  }
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (!inet_ntop(count == 1 ? AF_INET : AF_INET6, words.data(), text.data(), text.size())) return {};
  const std::string host = count == 1 ? text.data() : "[" + std::string(text.data()) + "]";
  return host + ":" + std::to_string(port);
}

std::string unixSocketName(std::string_view text, uint64_t inode) {
  std::string name;
  eachTableLine(text, [&](const std::string& line) {
    uint64_t its = 0;
    int nameAt = 0;
    if (sscanf(line.c_str(), "%*x: %*x %*x %*x %*x %*x %" SCNu64 " %n", &its, &nameAt) == 1 && its == inode &&
        nameAt > 0)
      name = line.substr(std::min(line.size(), static_cast<size_t>(nameAt)));
  });
  return name;
}

}  // namespace kelvane
