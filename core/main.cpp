#include <cstdio>
#include <string>
#include <string_view>

#include "core/daemon.h"
#include "platform/linux/linux_platform.h"
#include "platform/platform.h"

int main(int argc, char** argv) {
  if (argc > 1) {
    const bool asked = std::string_view(argv[1]) == "--help";
    std::fputs(
        "Usage: quorveld\nIt takes no arguments; quorvelctl prefs sets what it does. See quorveld(8).\n",
        asked ? stdout : stderr);
    return asked ? 0 : 2;
  }
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
