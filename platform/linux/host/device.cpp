#include "platform/linux/host/device.h"

#include <strings.h>
#include <sys/random.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <map>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/root_path.h"
#include "platform/linux/host/os_release.h"

namespace quorveld::linux_platform {

namespace {

constexpr size_t kMaxOsReleaseBytes = size_t{64} * 1024;

std::map<std::string, std::string, std::less<>> osRelease() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::error_code error;
    if (const auto bytes = readFile(rooted(path), kMaxOsReleaseBytes, error)) return parseOsRelease(*bytes);
  }
  return {};
}

bool means(const char* text, std::initializer_list<const char*> words) {
  for (const char* word : words) {
    if (::strcasecmp(text, word) == 0) return true;
  }
  return false;
}

uint32_t randomBits() {
  uint32_t bits = 0;
  if (::getrandom(&bits, sizeof bits, 0) != static_cast<ssize_t>(sizeof bits)) {
    // So few bytes are neither cut short nor interrupted once the pool is ready: getrandom(2).
    std::perror("quorveld: getrandom");
    std::abort();
  }
  return bits;
}

}  // namespace

bool LinuxDevice::capability(std::string_view name) {
  if (name != "InternalBuild") return false;
  if (const char* setting = std::getenv("QUORVELD_INTERNAL_BUILD")) {
    return means(setting, {"1", "true", "yes"});
  }
  const auto values = osRelease();
  const auto variant = values.find("VARIANT_ID");
  return variant != values.end() && variant->second == "internal";
}

platform::OSVersion LinuxDevice::osVersion() {
  const auto values = osRelease();
  const auto stated = [&](std::string_view name) -> std::optional<std::string> {
    const auto found = values.find(name);
    if (found == values.end()) return std::nullopt;
    return found->second;
  };
  return {stated("NAME"), stated("VERSION_ID"), stated("BUILD_ID")};
}

std::string LinuxDevice::machine() {
  utsname names{};
  ::uname(&names);
  return names.machine;
}

uint32_t LinuxDevice::uniformRandom(uint32_t bound) {
  // Numbers below 2^32 modulo `bound` would favour small remainders: draw again.
  const uint32_t unfair = -bound % bound;
  uint32_t bits = randomBits();
  while (bits < unfair) bits = randomBits();
  return bits % bound;
}

}  // namespace quorveld::linux_platform
