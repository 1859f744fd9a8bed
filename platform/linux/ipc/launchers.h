#pragma once

#include <cstdint>
#include <optional>

namespace quorveld::linux_platform {

/// Members of this group may announce the launches of every user's processes.
inline constexpr const char* kLauncherGroup = "quorveld-launcher";

/// Whether the client at the other end of a connected socket was of that group when it connected: by
/// SO_PEERCRED and SO_PEERGROUPS (unix(7)), and by the group file below the root.
bool isLauncher(int socket);

/// The real user of a process; nothing for one that has ended.
std::optional<uint32_t> userOfProcess(int32_t pid);

}  // namespace quorveld::linux_platform
