#pragma once

#include <cstdint>

namespace kelvane {

/// Sets `peer` to the inode of the socket that a Unix socket of the process of `processDir`, by its inode, is
/// connected to, as sock_diag(7) tells it; to 0 if it is no connected one. It is asked in the network
/// namespace of that process, or in this one's where that may not be entered. Returns 0, or the errno with
/// which the kernel refuses to be asked. Never waits.
int unixSocketPeer(int processDir, uint32_t inode, uint32_t& peer);

}  // namespace kelvane
