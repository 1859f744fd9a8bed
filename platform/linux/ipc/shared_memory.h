#pragma once

#include "platform/ipc.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// A descriptor that a client sent. Only a memfd that can no longer shrink is mapped: a page that goes away
/// under a mapping is a SIGBUS for whoever reads it.
class ReceivedMemory final : public platform::SharedMemory {
 public:
  /// Takes a descriptor, or none (-1), in place of the last one.
  void receive(int fd) { fd_.reset(fd); }

  /// Where refusals are logged, at default level.
  void setLog(platform::LogHandle& log) { log_ = &log; }

  /// Seals the object against shrinking and growing, maps it, and closes the descriptor; so it maps once.
  std::unique_ptr<platform::SharedMapping> map() override;

 private:
  std::unique_ptr<platform::SharedMapping> refuse(const char* what, int error);

  UniqueFd fd_;
  platform::LogHandle* log_ = nullptr;
};

}  // namespace quorveld::linux_platform
