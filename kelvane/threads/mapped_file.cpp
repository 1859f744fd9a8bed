#include "kelvane/threads/mapped_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <utility>

namespace kelvane {
namespace {

bool isRegularFile(int dirFd, const char* path) {
  struct stat status {};
  return fstatat(dirFd, path, &status, 0) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

UniqueFd openMappedFile(int processDir, const MappedModule& module) {
  constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  std::array<char, 64> link;
  snprintf(link.data(), link.size(), "map_files/%" PRIx64 "-%" PRIx64, module.start, module.firstEnd);
  if (isRegularFile(processDir, link.data())) {
    if (UniqueFd fd(openat(processDir, link.data(), kFlags)); fd) return fd;
  }
  // map_files needs CAP_CHECKPOINT_RESTORE, which an unprivileged process lacks; then by its path below the
  // process's root, if that is still the file.
  std::string path = "root" + module.path;
  if (!isRegularFile(processDir, path.c_str())) return {};
  UniqueFd fd(openat(processDir, path.c_str(), kFlags | O_NOFOLLOW));
  struct stat status {};
  bool same = fd && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_ino == module.inode;
  return same ? std::move(fd) : UniqueFd();
}

}  // namespace kelvane
