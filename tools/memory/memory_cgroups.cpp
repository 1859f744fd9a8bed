#include "tools/memory/memory_cgroups.h"

#include <charconv>
#include <filesystem>
#include <system_error>

#include "tools/base/kernel_text.h"
#include "tools/memory/now_parse.h"

namespace quorvelctl {
namespace {

constexpr int kMaxGroupDepth = 32;
constexpr size_t kMaxGroups = 10'000;

std::optional<uint64_t> numberIn(const std::string& text) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() ? std::optional(value) : std::nullopt;  // "max" is no number
}

CgroupMemory figuresOf(const std::string& folder) {
  const auto text = [&](const char* file) { return kernelText(folder + "/memory." + file); };
  CgroupMemory memory;
  memory.currentBytes = numberIn(text("current")).value_or(0);
  memory.swapBytes = numberIn(text("swap.current")).value_or(0);
  memory.highBytes = numberIn(text("high"));
  memory.maxBytes = numberIn(text("max"));
  const std::string stat = text("stat");
  memory.anonymousBytes = lineNumber(stat, "anon");
  memory.sharedBytes = lineNumber(stat, "shmem");
  const uint64_t file = lineNumber(stat, "file");
  memory.fileBytes = file > memory.sharedBytes ? file - memory.sharedBytes : 0;
  memory.kernelBytes = lineNumber(stat, "kernel");
  memory.socketBytes = lineNumber(stat, "sock");
  const std::string events = text("events");
  memory.highEvents = lineNumber(events, "high");
  memory.maxEvents = lineNumber(events, "max");
  memory.killEvents = lineNumber(events, "oom_kill");
  return memory;
}

}  // namespace

CgroupFigures readCgroups(const std::string& mount) {
  CgroupFigures figures;
  std::error_code error;
  if (!std::filesystem::exists(mount + "/cgroup.controllers", error)) return figures;
  using Options = std::filesystem::directory_options;
  std::filesystem::recursive_directory_iterator entry(mount, Options::skip_permission_denied, error);
  for (const std::filesystem::recursive_directory_iterator end;
       !error && entry != end && figures.size() < kMaxGroups; entry.increment(error)) {
    std::error_code gone;
    if (!entry->is_directory(gone)) continue;
    if (entry.depth() >= kMaxGroupDepth) entry.disable_recursion_pending();
    const std::string path = entry->path();
    if (!std::filesystem::exists(path + "/memory.current", gone)) continue;
    figures.emplace(path.substr(mount.size()), figuresOf(path));
  }
  return figures;
}

}  // namespace quorvelctl
