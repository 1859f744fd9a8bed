#include "platform/linux/base/root_path.h"

#include <cstdlib>

namespace quorveld::linux_platform {

std::string rooted(std::string_view path) {
  const char* root = std::getenv("QUORVELD_ROOT");
  std::string result = root ? root : "";
  while (!result.empty() && result.back() == '/') result.pop_back();
  return result.append(path);
}

}  // namespace quorveld::linux_platform
