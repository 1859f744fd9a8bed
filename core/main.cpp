#include <cstdio>
#include <string>

#include "core/daemon.h"
#include "platform/linux/linux_platform.h"
#include "platform/platform.h"

int main() {
  using quorveld::linux_platform::LinuxPlatform;
  std::string error;
  const auto platform = LinuxPlatform::create(error);
  if (!platform) {
    std::fprintf(stderr, "quorveld: %s\n", error.c_str());
    return 1;
  }
  quorveld::platform::install(&platform->platform());
  quorveld::Daemon daemon;
  daemon.start();
  return daemon.run();
}
