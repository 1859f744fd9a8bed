#include "platform/linux/host/trace_library.h"

#include <dlfcn.h>
#include <fcntl.h>

#include "platform/linux/base/root_path.h"

namespace quorveld::linux_platform {

namespace {

class LoadedLibrary final : public platform::TraceLibrary {
 public:
  explicit LoadedLibrary(void* handle) : handle_(handle) {}
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;
  ~LoadedLibrary() override { ::dlclose(handle_); }

  void* symbol(const char* name) override { return ::dlsym(handle_, name); }

 private:
  void* handle_;
};

}  // namespace

void LinuxTraceLibraryLoader::reserve() {
  reserved_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

std::unique_ptr<platform::TraceLibrary> LinuxTraceLibraryLoader::open(const std::string& path,
                                                                      std::string& reason) {
  reserved_.reset();
  void* handle = ::dlopen(rooted(path).c_str(), RTLD_LAZY | RTLD_LOCAL);
  reserve();
  if (!handle) {
    const char* said = ::dlerror();
    reason = said ? said : "no reason given";
    return nullptr;
  }
  return std::make_unique<LoadedLibrary>(handle);
}

}  // namespace quorveld::linux_platform
