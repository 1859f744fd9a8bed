#pragma once

#include <string>

namespace quorvelctl {

/// All of a file that the kernel makes while it is read (/proc, /sys), up to 32 MiB; empty, with errno set,
/// when it can't be read.
std::string kernelText(const std::string& path);

}  // namespace quorvelctl
