#pragma once

#include "platform/linux/base/unique_fd.h"
#include "platform/trace_library.h"

namespace quorveld::linux_platform {

/// Trace libraries by dlopen(3), taken below the instance's root. One thread at a time.
///
/// Keeps a descriptor for the linker, which opens one file after another: whether there is a library is asked
/// once, and clients that hold all others must not be the answer.
class LinuxTraceLibraryLoader final : public platform::TraceLibraryLoader {
 public:
  LinuxTraceLibraryLoader() { reserve(); }
  std::string_view suffix() const override { return ".so"; }
  std::unique_ptr<platform::TraceLibrary> open(const std::string& path, std::string& reason) override;

 private:
  void reserve();

  UniqueFd reserved_;
};

}  // namespace quorveld::linux_platform
