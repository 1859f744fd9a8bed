#pragma once

#include <string>
#include <string_view>

namespace quorveld::linux_platform {

/// `path` (absolute) below the instance's root, the environment's QUORVELD_ROOT; `path` itself when that is
/// unset or empty. What the kernel serves (/proc, /sys) belongs to no root and does not come here. From any
/// thread.
std::string rooted(std::string_view path);

}  // namespace quorveld::linux_platform
