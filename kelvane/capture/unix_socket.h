#pragma once

#include <cstdint>

namespace kelvane {

/// The inode of the socket that the Unix socket with inode `inode` is connected to, as sock_diag(7) tells it;
/// 0 if it is no connected Unix socket of this network namespace. Never waits.
uint32_t unixSocketPeer(uint32_t inode);

}  // namespace kelvane
