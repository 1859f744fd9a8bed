#include "kelvane/threads/read_memory_map.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"

namespace kelvane {

MemoryMap readMemoryMap(int processDir) {
  MemoryMap map;
  UniqueFd fd(openat(processDir, "maps", O_RDONLY | O_CLOEXEC));
  if (!fd) {
    map.problem = errorText(errno);
    return map;
  }
  MemoryMapParser parser;
  std::array<char, 16384> piece;
  for (size_t total = 0;;) {
    ssize_t got = read(fd.get(), piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) map.problem = errorText(errno);
    if (got <= 0) break;
    parser.feed({piece.data(), static_cast<size_t>(got)});
    total += static_cast<size_t>(got);
    if (parser.full() || total >= kMaxMapsBytes) {
      map.problem = "the process maps more than is read";
      break;
    }
  }
  map.modules = parser.finish();
  return map;
}

}  // namespace kelvane
