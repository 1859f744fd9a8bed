#pragma once

#include <cstdint>

namespace kelvane {

/// Sets `peer` to the inode of the socket that the Unix socket with inode `inode` is connected to, as
/// sock_diag(7) tells it; to 0 if it is no connected Unix socket of this network namespace. Returns 0, or the
/// errno with which the kernel refuses to be asked. Never waits.
int unixSocketPeer(uint32_t inode, uint32_t& peer);

}  // namespace kelvane
