#include "platform/linux/base/helper_programs.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>

#include "platform/linux/base/file_bytes.h"

namespace quorveld::linux_platform {

std::string helperProgram(const std::string& name) {
  if (const char* folder = std::getenv("QUORVELD_LIBEXEC"); folder && *folder != '\0')
    return std::string(folder) + "/" + name;
  std::array<char, PATH_MAX> path;
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0) return name;
  return directoryOf(directoryOf({path.data(), static_cast<size_t>(length)})) + "/libexec/quorveld/" + name;
}

}  // namespace quorveld::linux_platform
