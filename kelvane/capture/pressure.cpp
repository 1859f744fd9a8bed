#include "kelvane/capture/pressure.h"

#include <fcntl.h>

#include <charconv>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"

namespace kelvane {
namespace {

/// The percentage behind "`name` avg10=".
std::optional<double> average10(std::string_view text, std::string_view name) {
  std::string key = std::string(name) + " avg10=";
  size_t at = text.find(key);
  if (at == std::string_view::npos) return std::nullopt;
  double percent = 0;
  auto [end, error] = std::from_chars(text.data() + at + key.size(), text.data() + text.size(), percent);
  if (error != std::errc() || !(percent >= 0 && percent <= 100)) return std::nullopt;
  return percent;
}

}  // namespace

std::optional<PressureLine> parsePressure(std::string_view text) {
  auto some = average10(text, "some");
  if (!some) return std::nullopt;
  return PressureLine{*some, average10(text, "full")};
}

Pressure readPressure() {
  auto read = [](const char* path) {
    return parsePressure(readFileAt(AT_FDCWD, path, kMaxProcFileBytes).text);
  };
  return {read("/proc/pressure/cpu"), read("/proc/pressure/memory"), read("/proc/pressure/io")};
}

}  // namespace kelvane
