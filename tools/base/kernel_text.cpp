#include "tools/base/kernel_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "tools/base/descriptor.h"

namespace quorvelctl {

namespace {
constexpr size_t kMaxKernelTextBytes = size_t{32} << 20;
}

std::string kernelText(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  std::string text;
  if (file.get() < 0) return text;
  std::array<char, 16384> piece;
  while (text.size() < kMaxKernelTextBytes) {
    const ssize_t length = read(file.get(), piece.data(), piece.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    text.append(piece.data(), static_cast<size_t>(length));
  }
  return text;
}

}  // namespace quorvelctl
