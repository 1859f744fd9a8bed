#include "kelvane/capture/other_memory.h"

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <climits>

namespace kelvane {

size_t readOther(pid_t pid, uint64_t address, void* into, size_t length) {
  // A piece is transferred whole or not at all, and memory ends with a page.
  constexpr uint64_t kPage = 4096;
  const size_t first = std::min<uint64_t>(length, kPage - address % kPage);
  const iovec local{into, length};
  // NOLINTBEGIN(performance-no-int-to-ptr): addresses of the other process
  const std::array<iovec, 2> remote = {iovec{reinterpret_cast<void*>(address), first},
                                       iovec{reinterpret_cast<void*>(address + first), length - first}};
  // NOLINTEND(performance-no-int-to-ptr)
  const ssize_t got = process_vm_readv(pid, &local, 1, remote.data(), first < length ? 2 : 1, 0);
  return static_cast<size_t>(std::max<ssize_t>(got, 0));
}

std::string readOtherText(pid_t pid, uint64_t address) {
  std::string text(PATH_MAX, '\0');
  text.resize(readOther(pid, address, text.data(), text.size()));
  const size_t end = text.find('\0');
  return end == std::string::npos ? std::string() : text.substr(0, end);
}

}  // namespace kelvane
