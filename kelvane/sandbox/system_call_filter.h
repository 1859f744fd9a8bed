#pragma once

namespace kelvane {

/// Lets this process do no more than work on its memory, read open descriptors, exchange messages over open
/// sockets and end: any other system call ends it with SIGSYS. False, with errno, if no filter can be set.
bool filterSystemCalls();

}  // namespace kelvane
