#pragma once

#include <string>

namespace quorveld::linux_platform {

/// Where the instance's sockets, lock and notifications live: <root>/run/quorveld.
std::string runtimeDirectory();

/// Makes it, with what is missing above it, mode 0755; an existing one stays as it is. False, and the reason
/// in `error`, on failure.
[[nodiscard]] bool makeRuntimeDirectory(std::string& error);

}  // namespace quorveld::linux_platform
