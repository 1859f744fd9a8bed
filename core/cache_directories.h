#pragma once

namespace quorveld {

/// Makes the cache, temporary and spool directories where they are missing; something else in their place
/// gives way. A failure is logged and start-up goes on.
void createCacheDirectories();

}  // namespace quorveld
