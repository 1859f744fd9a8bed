#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string_view>
#include <utility>

#include "tests/campaign/device_life.h"

// Random days of the daemon on the simulated platform, against what must always hold. Each device lives for a
// few days, drawn from a seed of its own: whatever goes wrong is played again from that seed alone.

namespace {

using namespace quorveld;

constexpr uint64_t kDaysOfDevice = 8;

// What an abort in the midst of a day is to say.
uint64_t deviceSeed = 0;
uint64_t deviceDays = 0;

void tellSeed(int) {
  char text[96];
  const int length =
      std::snprintf(text, sizeof text, "ended by a signal; again: --seed %llu --days %llu\n",
                    static_cast<unsigned long long>(deviceSeed), static_cast<unsigned long long>(deviceDays));
  std::fwrite(text, 1, static_cast<size_t>(length), stderr);
}

bool readNumber(const char* text, uint64_t& number) {
  const char* end = text + std::strlen(text);
  const auto result = std::from_chars(text, end, number);
  return result.ec == std::errc() && result.ptr == end;
}

int usage() {
  std::fputs("usage: campaign_tests [--seed N] [--days N]\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t seed = std::random_device()();
  uint64_t days = 100;
  for (int i = 1; i + 1 < argc || i < argc; i += 2) {
    const std::string_view name = argv[i];
    uint64_t* number = name == "--seed" ? &seed : name == "--days" ? &days : nullptr;
    if (!number || i + 1 >= argc || !readNumber(argv[i + 1], *number)) return usage();
  }
  std::printf("campaign: --seed %llu --days %llu\n", static_cast<unsigned long long>(seed),
              static_cast<unsigned long long>(days));
  std::fflush(stdout);
  std::signal(SIGABRT, tellSeed);
  std::signal(SIGSEGV, tellSeed);

  campaign::Books::Totals sum;
  const auto began = std::chrono::steady_clock::now();
  deviceSeed = seed;
  for (uint64_t lived = 0; lived < days; ++deviceSeed) {
    campaign::DeviceLife life(deviceSeed);
    for (deviceDays = 1; deviceDays <= kDaysOfDevice && lived < days; ++deviceDays, ++lived) {
      try {
        life.liveDay();
      } catch (const campaign::Violation& violation) {
        std::printf("%s\nlast lines:\n%s\nagain: --seed %llu --days %llu\n", violation.what(),
                    life.lastWords().c_str(), static_cast<unsigned long long>(deviceSeed),
                    static_cast<unsigned long long>(deviceDays));
        return 1;
      }
    }
    sum += life.totals();
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::printf("%llu days held in %.1f s\n", static_cast<unsigned long long>(days), took.count());
  const std::pair<uint64_t, const char*> counts[] = {{sum.hangs, "hangs"},
                                                     {sum.reports, "reports of hangs and launches"},
                                                     {sum.refusals, "refused"},
                                                     {sum.failures, "failed"},
                                                     {sum.launches, "launches begun"},
                                                     {sum.timeouts, "timed out"},
                                                     {sum.memoryReports, "memory reports"},
                                                     {sum.daemons, "daemons"}};
  for (const auto& [count, what] : counts)
    std::printf("%12llu %s\n", static_cast<unsigned long long>(count), what);
  return 0;
}
