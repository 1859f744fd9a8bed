// What marking one operation costs, begin and end together, beside the clock reading that it contains and
// beside the table under a mutex that one would write at first. The figure is CPU time per operation of each
// thread.
#include <benchmark/benchmark.h>
#include <time.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "client/include/quorvel.h"

namespace {

// 64 bytes with its NUL: the longest that a slot takes.
constexpr const char* kName = "a name that fills all of a slot's sixty-four bytes, its NUL too";
static_assert(
    std::char_traits<char>::length("a name that fills all of a slot's sixty-four bytes, its NUL too") == 63);

/// The region is the same with and without a daemon.
void setUpRegion() {
  static const int connection = qv_watch("org.example.bench", "mark_operation_bench");
  benchmark::DoNotOptimize(connection);
}

void bareClock(benchmark::State& state) {
  for (auto _ : state) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    benchmark::DoNotOptimize(now);
  }
}

void heldSlot(benchmark::State& state) {
  setUpRegion();
  qv_slot* slot = qv_slot_claim(kName);
  if (!slot) state.SkipWithError("no slot");
  for (auto _ : state) {
    qv_slot_begin(slot, true);
    qv_slot_end(slot);
  }
  qv_slot_release(slot);
}

void claimedSlot(benchmark::State& state) {
  setUpRegion();
  const uint64_t untrackedBefore = qv_untracked();
  for (auto _ : state) qv_end(qv_begin(kName, true));
  if (qv_untracked() != untrackedBefore) state.SkipWithError("not every operation was tracked");
}

struct Entry {
  uint64_t start;
  bool taken;
  std::array<char, 64> name;
};

void tableUnderMutex(benchmark::State& state) {
  static std::mutex mutex;
  static std::array<Entry, 20> table{};
  for (auto _ : state) {
    const uint64_t now = qv_ticks();
    Entry* mine = nullptr;
    {
      const std::lock_guard lock(mutex);
      for (Entry& entry : table) {
        if (entry.taken) continue;
        mine = &entry;
        break;
      }
      mine->taken = true;
      mine->start = now;
      std::strncpy(mine->name.data(), kName, mine->name.size());
    }
    const std::lock_guard lock(mutex);
    mine->taken = false;
  }
}

BENCHMARK(bareClock)->Threads(1)->Threads(8);
BENCHMARK(heldSlot)->Threads(1)->Threads(8);
BENCHMARK(claimedSlot)->Threads(1)->Threads(8);
BENCHMARK(tableUnderMutex)->Threads(1)->Threads(8);

}  // namespace

BENCHMARK_MAIN();
