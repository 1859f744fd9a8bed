#include "base/log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/platform.h"

namespace quorveld {

namespace {

using platform::LogLevel;

/// Formats into a buffer on the stack, or into the heap when the line is longer, and hands the text to
/// `sink`.
template <typename Sink>
[[gnu::format(printf, 1, 0)]] void withText(const char* format, va_list arguments, const Sink& sink) {
  va_list again;
  va_copy(again, arguments);
  std::array<char, 512> line;
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  if (length >= 0 && static_cast<size_t>(length) < line.size()) {
    sink(std::string_view(line.data(), static_cast<size_t>(length)));
  } else if (length >= 0) {
    std::string longLine(static_cast<size_t>(length), '\0');
    std::vsnprintf(longLine.data(), longLine.size() + 1, format, again);
    sink(std::string_view(longLine));
  }
  va_end(again);
}

[[gnu::format(printf, 3, 0)]] void write(platform::LogHandle& handle, LogLevel level, const char* format,
                                         va_list arguments) {
  if (!handle.enabled(level)) return;
  withText(format, arguments, [&](std::string_view text) { handle.write(level, text); });
}

}  // namespace

void Log::standard(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  write(*handle_, LogLevel::standard, format, arguments);
  va_end(arguments);
}

void Log::info(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  write(*handle_, LogLevel::info, format, arguments);
  va_end(arguments);
}

void Log::debug(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  write(*handle_, LogLevel::debug, format, arguments);
  va_end(arguments);
}

Log quorvelLog() {
  return Log(platform::current().logs.handle("com.corvix.quorvel", ""));
}

void systemLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  withText(format, arguments, [](std::string_view text) { platform::current().logs.system(text); });
  va_end(arguments);
}

}  // namespace quorveld
