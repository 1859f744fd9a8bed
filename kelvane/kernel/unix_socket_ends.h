// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only
#pragma once

#include <stdint.h>

/// C as well as C++: the BPF program writes these.
struct unix_socket_ends {
  uint64_t inode;
  uint64_t peer_inode;  // 0: it is not connected, or nobody has accepted the connection yet
};
