#include "platform/linux/base/runtime_directory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/base/root_path.h"

namespace quorveld::linux_platform {

namespace {

constexpr mode_t kDirectoryMode = 0755;

}  // namespace

std::string runtimeDirectory() {
  return rooted("/run/quorveld");
}

bool makeRuntimeDirectory(std::string& error) {
  const std::string path = runtimeDirectory();
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    if (mkdir(part.c_str(), kDirectoryMode) == 0) {
      chmod(part.c_str(), kDirectoryMode);  // the umask has had its say on mkdir's mode
    } else if (errno != EEXIST) {
      error = part + ": mkdir failed: " + strerrordesc_np(errno);
      return false;
    }
    if (end == std::string::npos) return true;
  }
}

}  // namespace quorveld::linux_platform
