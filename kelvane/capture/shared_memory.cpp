#include "kelvane/capture/shared_memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/capture/thread_process.h"
#include "kelvane/threads/thread_facts.h"

namespace kelvane {
namespace {

/// The device and inode of a mapping, as its line in maps has them: "00:01 1048577".
std::string fileOfLine(std::string_view line) {
  for (int field = 0; field < 3; field++) line.remove_prefix(std::min(line.size(), line.find(' ') + 1));
  const size_t end = line.find(' ', line.find(' ') + 1);
  return std::string(line.substr(0, end));
}

template <typename Take>
void eachLine(std::string_view text, Take take) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    take(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
}

/// What file the address lies in, if it is mapped to be shared.
std::string sharedFileAt(const std::string& maps, uint64_t address) {
  std::string file;
  eachLine(maps, [&](std::string_view line) {
    const auto parsed = parseMapsLine(line);
    if (!parsed || address < parsed->start || address >= parsed->end || parsed->inode == 0) return;
    const size_t flags = line.find(' ');
    if (flags + 4 < line.size() && line[flags + 4] == 's') file = fileOfLine(line);
  });
  return file;
}

bool maps(pid_t pid, const std::string& file) {
  const std::string path = "/proc/" + std::to_string(pid) + "/maps";
  bool found = false;
  eachLine(readFileAt(AT_FDCWD, path.c_str(), kMaxMapsBytes).text,
           [&](std::string_view line) { found = found || fileOfLine(line) == file; });
  return found;
}

std::string pidNamespace(int dirFd, const std::string& path) {
  char text[64];
  const ssize_t length = readlinkat(dirFd, path.c_str(), text, sizeof text);
  return length < 0 ? std::string() : std::string(text, static_cast<size_t>(length));
}

}  // namespace

bool isSharedMemory(int processDir, uint64_t address) {
  return !sharedFileAt(readFileAt(processDir, "maps", kMaxMapsBytes).text, address).empty();
}

std::optional<WaitHolder> threadSharing(int processDir, uint64_t address, pid_t inside) {
  const std::string file = sharedFileAt(readFileAt(processDir, "maps", kMaxMapsBytes).text, address);
  if (file.empty()) return std::nullopt;
  const auto holder = [&](pid_t pid, pid_t tid) -> std::optional<WaitHolder> {
    if (pid == 0 || !maps(pid, file)) return std::nullopt;
    return WaitHolder{pid, tid, Sureness::certain, {}};
  };
  const bool hasOwnIds = parseInnerId(readFileAt(processDir, "status", kMaxProcFileBytes).text) != 0;
  if (!hasOwnIds) return holder(processOf(inside), inside);
  const std::string ids = pidNamespace(processDir, "ns/pid");
  const Deadline over(kThreadSearch);
  for (const pid_t pid : listNumbersAt(AT_FDCWD, "/proc", kMaxProcessesScanned)) {
    if (over.passed()) break;
    const std::string path = "/proc/" + std::to_string(pid);
    if (pidNamespace(AT_FDCWD, path + "/ns/pid") != ids) continue;
    const UniqueFd dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (const pid_t tid = dir ? threadCalled(dir.get(), inside) : 0) return holder(pid, tid);
  }
  return std::nullopt;
}

}  // namespace kelvane
