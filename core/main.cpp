#include <cstdio>
#include <string>
#include <string_view>

#include "core/daemon.h"
#include "platform/linux/desktop/screen_helper.h"
#include "platform/linux/linux_platform.h"
#include "platform/platform.h"

int main(int argc, char** argv) {
  if (argc > 1) {
    const std::string_view argument = argv[1];
    if (argument == "--version") return std::puts("quorveld " QUORVELD_VERSION) < 0 ? 1 : 0;
    if (argument == quorveld::linux_platform::kScreenHelperArgument) {
      return quorveld::linux_platform::runScreenHelper();
    }
    const bool asked = argument == "--help";
    std::fputs(
        "Usage: quorveld [--help | --version]\n"
        "quorvelctl prefs sets what it does. See quorveld(8).\n",
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
