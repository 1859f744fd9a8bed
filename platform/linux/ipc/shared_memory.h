#pragma once

#include <utility>

#include "platform/ipc.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/wire/receiver_packets.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// A descriptor that a client sent. Only a memfd that can no longer shrink is mapped: a page that goes away
/// under a mapping is a SIGBUS for whoever reads it.
class ReceivedMemory final : public platform::SharedMemory {
 public:
  /// Takes a descriptor, or what else became of it, in place of the last one.
  void receive(UniqueFd fd, MemoryState state) {
    fd_ = std::move(fd);
    state_ = state;
  }

  /// Where refusals are logged, at default level.
  void setLog(platform::LogHandle& log) { log_ = &log; }

  /// Seals the object against shrinking and growing, maps it, and closes the descriptor; so it maps once.
  std::unique_ptr<platform::SharedMapping> map() override;

 private:
  std::unique_ptr<platform::SharedMapping> refuse(const char* what, int error);

  UniqueFd fd_;
  MemoryState state_ = MemoryState::none;
  platform::LogHandle* log_ = nullptr;
};

}  // namespace quorveld::linux_platform
