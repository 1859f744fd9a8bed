#include "platform/linux/memory/memory_cgroups.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <system_error>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/memory/kernel_memory_text.h"

namespace quorveld::linux_platform {

namespace {

constexpr size_t kMaxCgroupFileBytes = 64 * 1024;
constexpr uint64_t kMiB = 1024 * 1024;

/// What stands in a limit file; "max" and version 1's huge numbers are no limit.
std::optional<int32_t> ownLimitMiB(const std::string& file) {
  std::error_code error;
  const auto text = readFile(file, kMaxCgroupFileBytes, error);
  if (!text) return std::nullopt;
  uint64_t bytes = 0;
  const auto [stop, parsing] = std::from_chars(text->data(), text->data() + text->size(), bytes);
  if (parsing != std::errc() || bytes / kMiB >= std::numeric_limits<int32_t>::max()) return std::nullopt;
  return static_cast<int32_t>(bytes / kMiB);
}

int32_t lowestLimitMiB(const CgroupPath& group) {
  const std::string mount = group.unified ? "/sys/fs/cgroup" : "/sys/fs/cgroup/memory";
  const std::string file = group.unified ? "/memory.max" : "/memory.limit_in_bytes";
  std::optional<int32_t> lowest;
  for (std::string path = group.path; path.size() > 1; path.resize(path.find_last_of('/'))) {
    const auto own = ownLimitMiB(mount + path + file);
    if (own && (!lowest || *own < *lowest)) lowest = own;
  }
  return lowest.value_or(-1);
}

}  // namespace

int32_t MemoryCgroups::limitMiB(int32_t pid, uint64_t cgroups) {
  const auto shared = limitByCgroups_.find(cgroups);
  if (shared != limitByCgroups_.end()) return shared->second;
  std::error_code error;
  const auto text = readFile("/proc/" + std::to_string(pid) + "/cgroup", kMaxCgroupFileBytes, error);
  if (!text) return -1;  // gone: the next one that shares its groups may answer
  auto known = limitByGroup_.find(*text);
  if (known == limitByGroup_.end()) {
    const auto group = parseMemoryCgroup(*text);
    const int32_t limit = group && group->path.starts_with('/') ? lowestLimitMiB(*group) : -1;
    known = limitByGroup_.emplace(*text, limit).first;
  }
  if (cgroups != 0) limitByCgroups_.emplace(cgroups, known->second);
  return known->second;
}

}  // namespace quorveld::linux_platform
