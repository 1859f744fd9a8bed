#include "platform/linux/ipc/launchers.h"

#include <grp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/root_path.h"

namespace quorveld::linux_platform {

namespace {

/// From the file alone: whom a name service would ask may take its time.
std::optional<gid_t> launcherGroup() {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(rooted("/etc/group").c_str(), "re"),
                                                   std::fclose);
  if (!file) return std::nullopt;
  while (const group* entry = fgetgrent(file.get())) {
    if (std::string_view(entry->gr_name) == kLauncherGroup) return entry->gr_gid;
  }
  return std::nullopt;
}

std::vector<gid_t> groupsOf(int socket) {
  constexpr socklen_t kMostGroups = 1024;  // more than that are not looked at
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return {};
  std::vector<gid_t> groups(kMostGroups);
  length = kMostGroups * sizeof(gid_t);
  if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) length = 0;
  groups.resize(length / sizeof(gid_t));
  groups.push_back(credentials.gid);
  return groups;
}

}  // namespace

bool isLauncher(int socket) {
  const std::optional<gid_t> launchers = launcherGroup();
  if (!launchers) return false;
  const std::vector<gid_t> groups = groupsOf(socket);
  return std::find(groups.begin(), groups.end(), *launchers) != groups.end();
}

std::optional<uint32_t> userOfProcess(int32_t pid) {
  constexpr size_t kMaxBytes = 16384;
  constexpr std::string_view kField = "\nUid:\t";
  std::error_code error;
  const std::string status =
      readFile("/proc/" + std::to_string(pid) + "/status", kMaxBytes, error).value_or("");
  const size_t at = status.find(kField);
  if (at == std::string::npos) return std::nullopt;
  return static_cast<uint32_t>(std::strtoul(status.c_str() + at + kField.size(), nullptr, 10));
}

}  // namespace quorveld::linux_platform
