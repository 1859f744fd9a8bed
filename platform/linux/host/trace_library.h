#pragma once

#include "platform/trace_library.h"

namespace quorveld::linux_platform {

/// Trace libraries by dlopen(3), taken below the instance's root. From any thread.
class LinuxTraceLibraryLoader final : public platform::TraceLibraryLoader {
 public:
  std::string_view suffix() const override { return ".so"; }
  std::unique_ptr<platform::TraceLibrary> open(const std::string& path, std::string& reason) override;
};

}  // namespace quorveld::linux_platform
