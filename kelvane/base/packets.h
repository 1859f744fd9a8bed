#pragma once

#include <sys/types.h>

#include <cstddef>

#include "kelvane/base/proc_files.h"

namespace kelvane {

// Packets over sockets of processes of ours, each with a descriptor at the most. Neither call waits.

/// Sends `bytes`, with the descriptor `passed` unless that is -1. False if that can't be done now.
bool sendPacket(int socket, const void* bytes, size_t length, int passed);

/// The next packet's bytes into `into`, and the descriptor that came along; how many bytes, -1 if none came.
ssize_t receivePacket(int socket, void* into, size_t length, UniqueFd& passed);

}  // namespace kelvane
