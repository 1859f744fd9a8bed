#include "platform/linux/base/linux_log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "platform/log.h"
#include "platform/platform.h"

namespace quorveld::linux_platform {

namespace {

/// Long enough for any line of this folder with a path in it; what is beyond is cut off.
constexpr size_t kMaxLineBytes = 4096 + 512;

[[gnu::format(printf, 2, 0)]] void write(platform::LogLevel level, const char* format, va_list arguments) {
  platform::LogHandle& handle = platform::current().logs.handle("com.corvix.quorvel", "");
  if (!handle.enabled(level)) return;
  std::array<char, kMaxLineBytes> line;
  if (std::vsnprintf(line.data(), line.size(), format, arguments) < 0) return;
  handle.write(level, line.data());
}

}  // namespace

void logDefault(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write(platform::LogLevel::standard, format, arguments);
  va_end(arguments);
}

void logInfo(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write(platform::LogLevel::info, format, arguments);
  va_end(arguments);
}

void logDebug(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write(platform::LogLevel::debug, format, arguments);
  va_end(arguments);
}

}  // namespace quorveld::linux_platform
