#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

/// The number of a file system, as /proc/locks and mountinfo have it. stat(2) tells another one of a file of
/// btrfs or of an overlay.
struct DeviceNumber {
  unsigned major = 0;
  unsigned minor = 0;

  bool operator==(const DeviceNumber&) const = default;
};

/// One line of /proc/PID/mountinfo.
struct Mount {
  uint64_t id = 0;
  DeviceNumber device;
  std::string point;
  std::string type;
  std::string source;
};
/// Pure; lines that are broken are left out.
std::vector<Mount> parseMounts(std::string_view text);
/// Those that the process with directory `processDir` sees.
std::vector<Mount> readMounts(int processDir);

/// The mount that a path lies on: the last one of those whose point is its longest beginning. Null: none.
const Mount* mountOfPath(const std::vector<Mount>& mounts, std::string_view path);
/// The mount that the process has opened the descriptor through, by the text of its fdinfo. Null: none that
/// the process sees.
const Mount* mountOfDescriptor(const std::vector<Mount>& mounts, std::string_view fdinfo);

}  // namespace kelvane
