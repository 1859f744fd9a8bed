#pragma once

namespace kelvane {

/// With what status a process of a capture ends when it has not done its part; 0 says that it has.
enum ExitStatus : int {
  kFailed = 1,
  kOtherVersion = 2,  // what was asked for is not understood
  kOutOfMemory = 3,
  kOrphaned = 4,  // nobody waits for it any more
};

}  // namespace kelvane
