#include "tools/preferences/notifications.h"

#include <string>

#include "tools/base/files.h"

namespace quorvelctl {

bool isNotificationName(std::string_view name) {
  constexpr size_t kMaxNameBytes = 255;  // NAME_MAX
  return !name.empty() && name.size() <= kMaxNameBytes && name.front() != '.' &&
         name.find('/') == std::string_view::npos;
}

std::error_code post(const Context& context, std::string_view name, uint64_t state) {
  const std::string path = context.path("/run/quorveld/notify/") + std::string(name);
  if (const std::error_code error = makeFolderOf(path)) return error;
  return replaceFile(path, std::to_string(state) + '\n', false);
}

}  // namespace quorvelctl
