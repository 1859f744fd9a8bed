#pragma once

namespace quorveld::linux_platform {

/// Gives up, for good, all that a receiver does not need: capabilities, new privileges, and every system call
/// that opens, starts or looks at anything. What the kernel refuses here is left: it is a second wall.
void confineReceiver();

}  // namespace quorveld::linux_platform
