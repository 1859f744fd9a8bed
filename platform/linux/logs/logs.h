#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/logs/log_sink.h"
#include "platform/log.h"

namespace quorveld::linux_platform {

/// The daemon's log: journald's native protocol when stderr is the journal, else lines on stderr.
///
/// The environment's QUORVELD_LOG says what is shown: "default", "info" (which is what an unset one means) or
/// "debug". Signposts are lines at info level and, where the tracing file system can be opened, intervals in
/// the kernel's trace besides. From any thread.
class LinuxLogs final : public platform::Logs {
 public:
  LinuxLogs();
  ~LinuxLogs() override;

  platform::LogHandle& handle(std::string_view subsystem, std::string_view category) override;
  uint32_t setSender(uint32_t uid) override { return LogSink::setSender(uid); }
  void system(std::string_view text) override;

 private:
  class Handle;
  using Name = std::pair<std::string, std::string>;
  struct NameOrder {
    using is_transparent = void;
    bool operator()(const auto& left, const auto& right) const {
      return std::pair<std::string_view, std::string_view>(left) <
             std::pair<std::string_view, std::string_view>(right);
    }
  };

  LogSink sink_;
  TraceMarker marker_;
  std::mutex mutex_;
  std::map<Name, std::unique_ptr<Handle>, NameOrder> handles_;
};

}  // namespace quorveld::linux_platform
