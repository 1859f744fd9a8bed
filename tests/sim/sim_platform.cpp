#include "tests/sim/sim_platform.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/settings.h"

namespace quorveld::sim {

uint64_t runSeed() {
  static const uint64_t seed = [] {
    const char* given = std::getenv("QUORVELD_SEED");
    return given ? std::strtoull(given, nullptr, 10) : std::random_device()();
  }();
  return seed;
}

SimPlatform::SimPlatform() {
  setenv("TZ", "UTC", 1);
  tzset();
  std::destroy_at(&settings());
  std::construct_at(&settings());
  platform::install(&services_);
}

SimPlatform::~SimPlatform() {
  platform::install(nullptr);
  if (testing::Test::HasFailure()) {
    std::fprintf(stderr, "the run's seed: QUORVELD_SEED=%llu\n", static_cast<unsigned long long>(runSeed()));
  }
}

}  // namespace quorveld::sim
