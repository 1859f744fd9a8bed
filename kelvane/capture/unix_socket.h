#pragma once

#include <cstdint>

#include "kelvane/base/proc_files.h"

namespace kelvane {

/// Sets `peer` to the inode of the socket that a Unix socket of a process, by its inode, is connected to; to
/// 0 if it is no connected one. `sockets` is what `unixSocketsOf` that process has told. Where that is an
/// error, sock_diag(7) tells it: in the network namespace of the process, whose directory in /proc is
/// `processDir`, or in this one's where that may not be entered. Returns 0, or the errno with which the
/// kernel refuses to be asked. Never waits.
int unixSocketPeer(const FileText& sockets, int processDir, uint32_t inode, uint32_t& peer);

}  // namespace kelvane
