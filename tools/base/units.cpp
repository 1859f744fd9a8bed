#include "tools/base/units.h"

#include <cstdio>

namespace quorvelctl {

std::string fixed(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string durationText(double ms) {
  if (ms < 0) return "unknown";
  if (ms > 0 && ms < 1) return fixed(ms, 2) + " ms";
  return ms < 1000 ? fixed(ms, 0) + " ms" : fixed(ms / 1000, 2) + " s";
}

std::string utcTime(time_t time) {
  tm parts{};
  char text[32] = "";
  if (gmtime_r(&time, &parts)) std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

std::string sizeText(uint64_t bytes) {
  constexpr double kKilobyte = 1024;
  const auto size = static_cast<double>(bytes);
  if (bytes < 1024) return std::to_string(bytes) + " B";
  if (size < kKilobyte * kKilobyte) return fixed(size / kKilobyte, 0) + " KB";
  if (size < kKilobyte * kKilobyte * kKilobyte) return fixed(size / (kKilobyte * kKilobyte), 1) + " MB";
  return fixed(size / (kKilobyte * kKilobyte * kKilobyte), 2) + " GB";
}

}  // namespace quorvelctl
