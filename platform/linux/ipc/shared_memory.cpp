#include "platform/linux/ipc/shared_memory.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/linux/wire/message_limits.h"

namespace quorveld::linux_platform {

namespace {

class Mapping final : public platform::SharedMapping {
 public:
  Mapping(void* address, size_t lengthBytes) : address_(address), lengthBytes_(lengthBytes) {}
  ~Mapping() override { munmap(address_, lengthBytes_); }
  void* address() const override { return address_; }
  size_t lengthBytes() const override { return lengthBytes_; }

 private:
  void* address_;
  size_t lengthBytes_;
};

bool seal(int fd) {
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW;
  if (fcntl(fd, F_ADD_SEALS, kSeals) == 0) return true;
  const int error = errno;
  const int present = fcntl(fd, F_GET_SEALS);
  errno = error;
  return present >= 0 && (present & kSeals) == kSeals;
}

/// Memory of huge pages can be sealed, but a hole that is punched into it may find no page any more when it
/// is read: SIGBUS. Ordinary shared memory reads zeros there.
bool isOrdinaryMemory(int fd) {
  struct statfs system {};
  return fstatfs(fd, &system) == 0 && system.f_type == TMPFS_MAGIC;
}

/// What the receiver found.
const char* whyThereIsNone(MemoryState state) {
  switch (state) {
    case MemoryState::notMemory:
      return "it is no memfd of ordinary pages";
    case MemoryState::unsealable:
      return "it can't be sealed against shrinking";
    case MemoryState::tooLarge:
      return "it is larger than any hang region";
    case MemoryState::none:
    case MemoryState::attached:
      break;
  }
  return "it has been mapped before";
}

}  // namespace

std::unique_ptr<platform::SharedMapping> ReceivedMemory::map() {
  const UniqueFd fd = std::move(fd_);
  if (!fd) return refuse(whyThereIsNone(state_), 0);
  if (!isOrdinaryMemory(fd.get())) return refuse("it is no memfd of ordinary pages", 0);
  if (!seal(fd.get())) return refuse("it can't be sealed against shrinking", errno);
  // Only now does the size mean anything: until it was sealed, it was the client's to change.
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) return refuse("its size can't be read", errno);
  if (status.st_size <= 0) return refuse("it is empty", 0);
  const auto lengthBytes = static_cast<size_t>(status.st_size);
  if (lengthBytes > kMaxSharedMemoryBytes) return refuse("it is larger than any hang region", 0);
  void* const address = mmap(nullptr, lengthBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (address == MAP_FAILED) return refuse("mmap failed", errno);
  return std::make_unique<Mapping>(address, lengthBytes);
}

std::unique_ptr<platform::SharedMapping> ReceivedMemory::refuse(const char* what, int error) {
  std::string line = std::string("Not mapping a client's shared memory: ") + what;
  if (error != 0) line.append(" (").append(strerrordesc_np(error)).append(")");
  log_->write(platform::LogLevel::standard, line);
  return nullptr;
}

}  // namespace quorveld::linux_platform
