#include "core/cache_directories.h"

#include <string>
#include <system_error>

#include "base/log.h"
#include "base/paths.h"
#include "platform/files.h"
#include "platform/platform.h"

namespace quorveld {

void createCacheDirectories() {
  constexpr unsigned kMode = 0755;
  const Log log = quorvelLog();
  platform::Files& files = platform::current().files;
  for (const std::string path : {kCacheDirectory, kTemporaryDirectory, kSpoolDirectory}) {
    const platform::EntryKind kind = files.kind(path);
    if (kind == platform::EntryKind::directory) continue;
    if (kind == platform::EntryKind::other && files.remove(path)) {
      log.standard("Unable to remove previous non-directory at %s", path.c_str());
    }
    log.info("Create log directory: %s", path.c_str());
    if (const std::error_code error = files.makeDirectory(path, kMode)) {
      log.standard("Cannot create spool directory - %s failed with %s - continuing anyway.", path.c_str(),
                   error.message().c_str());
    }
  }
}

}  // namespace quorveld
