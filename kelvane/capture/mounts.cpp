#include "kelvane/capture/mounts.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {

std::vector<Mount> parseMounts(std::string_view text) {
  std::vector<Mount> mounts;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::istringstream line{std::string(text.substr(0, end))};
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    Mount mount;
    std::string word;
    char colon = 0;
    if (!(line >> mount.id >> word >> mount.device.major >> colon >> mount.device.minor >> word >>
          mount.point))
      continue;
    while (line >> word && word != "-") {
    }
    if (line >> mount.type >> mount.source) mounts.push_back(std::move(mount));
  }
  return mounts;
}

std::vector<Mount> readMounts(int processDir) {
  return parseMounts(readFileAt(processDir, "mountinfo", kMaxNetTableBytes).text);
}

const Mount* mountOfPath(const std::vector<Mount>& mounts, std::string_view path) {
  const Mount* best = nullptr;
  for (const Mount& mount : mounts) {
    const std::string_view point = mount.point == "/" ? std::string_view() : std::string_view(mount.point);
    const bool liesThere =
        path.starts_with(point) && (path.size() == point.size() || path[point.size()] == '/');
    if (liesThere && (!best || mount.point.size() >= best->point.size())) best = &mount;
  }
  return best;
}

const Mount* mountOfDescriptor(const std::vector<Mount>& mounts, std::string_view fdinfo) {
  const uint64_t id = parseStatusNumber(fdinfo, "mnt_id");
  const auto found =
      std::find_if(mounts.begin(), mounts.end(), [&](const Mount& mount) { return mount.id == id; });
  return found == mounts.end() ? nullptr : &*found;
}

}  // namespace kelvane
