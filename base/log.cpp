#include "base/log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "base/limits.h"
#include "base/text.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

using platform::LogLevel;

/// Formats into a buffer on the stack and hands the text, cut at a character's border, to `sink`.
template <typename Sink>
[[gnu::format(printf, 1, 0)]] void withText(const char* format, va_list arguments, const Sink& sink) {
  constexpr std::string_view kCut = "...";
  std::array<char, kMaxLogTextBytes + kCut.size() + 1> line;
  const int length = std::vsnprintf(line.data(), kMaxLogTextBytes + 2, format, arguments);
  if (length < 0) return;
  std::string_view text = cutAtCharacter(line.data(), kMaxLogTextBytes);
  if (static_cast<size_t>(length) > kMaxLogTextBytes) {
    kCut.copy(line.data() + text.size(), kCut.size());
    text = {line.data(), text.size() + kCut.size()};
  }
  sink(text);
}

/// The same, uncut: for whoever has asked for debug lines, which list whole records.
template <typename Sink>
[[gnu::format(printf, 1, 0)]] void withWholeText(const char* format, va_list arguments, const Sink& sink) {
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  if (length < 0) return;
  sink(std::string_view(text, static_cast<size_t>(length)));
  std::free(text);
}

}  // namespace

void Log::write(LogLevel level, const char* format, va_list arguments) const {
  if (!handle_->enabled(level)) return;
  withText(format, arguments, [&](std::string_view text) { handle_->write(level, text, event_); });
}

void Log::standard(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  write(LogLevel::standard, format, arguments);
  va_end(arguments);
}

void Log::info(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  write(LogLevel::info, format, arguments);
  va_end(arguments);
}

void Log::debug(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  if (handle_->enabled(LogLevel::debug)) {
    withWholeText(format, arguments,
                  [this](std::string_view text) { handle_->write(LogLevel::debug, text, event_); });
  }
  va_end(arguments);
}

Log quorvelLog() {
  return Log(platform::current().logs.handle("com.corvix.quorvel", ""));
}

LogSender::LogSender(uint32_t uid) : before_(platform::current().logs.setSender(uid)) {}

LogSender::~LogSender() {
  platform::current().logs.setSender(before_);
}

void systemLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  withText(format, arguments, [](std::string_view text) { platform::current().logs.system(text); });
  va_end(arguments);
}

}  // namespace quorveld
