// The hang check of 1,000 watched processes with 20 operations each, beside a bare loop that reads the same
// two fields of the same slots in the same order. "Cold" runs with the caches emptied before each pass.

#include <benchmark/benchmark.h>
#include <emmintrin.h>
#include <sys/mman.h>

#include "bench/allocations.h"
#include <cstdlib>
#include <memory>
#include <vector>

#include "abi/hang_region.h"
#include "hangs/qv_process_info.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "platform/work_queue.h"
#include "tests/sim/sim_platform.h"

namespace {

using namespace quorveld;

constexpr int32_t kProcesses = 1000;
constexpr int32_t kSlots = QV_HANG_SLOT_COUNT;
constexpr int32_t kFirstPid = 1000;

/// Pages of its own for each region, as clients share them.
class Region final : public platform::SharedMapping {
 public:
  Region()
      : address_(mmap(nullptr, lengthBytes(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    if (address_ == MAP_FAILED) std::abort();
  }
  ~Region() override { munmap(address_, lengthBytes()); }
  void* address() const override { return address_; }
  size_t lengthBytes() const override { return sizeof(QVSharedHangRegion); }

 private:
  void* address_;
};

/// The registry with every slot in use and none of them hung.
class Watched {
 public:
  Watched() {
    queue_ = platform::current().queues.createMain("bench", platform::QoSClass::userInitiated);
    QVProcessInfo::initialize(*queue_);
    now_ = platform::current().clock.absoluteTime();
    for (int32_t i = 0; i < kProcesses; ++i) {
      sim_.kernel.executablePaths[kFirstPid + i] = "/apps/app";
      auto region = std::make_unique<Region>();
      auto* shared = static_cast<QVSharedHangRegion*>(region->address());
      shared->protocolVersion = QV_HANG_PROTOCOL_VERSION;
      shared->slotCount = QV_HANG_SLOT_COUNT;
      for (hangEvent& slot : shared->slots) slot.startTime = now_;
      regions_.push_back(shared);
      QVProcessInfo::startWatchingPid(kFirstPid + i, std::move(region), "com.example.app", 1000);
    }
  }

  void scan() const { QVProcessInfo::checkForHangTimeouts(now_); }

  void bareLoop() const {
    uint64_t pending = 0;
    for (QVSharedHangRegion* region : regions_) {
      for (hangEvent& slot : region->slots) {
        if (std::atomic_ref(slot.timeoutExempt).load() != 0) continue;
        pending += now_ - std::atomic_ref(slot.startTime).load(std::memory_order_relaxed) > now_;
      }
    }
    benchmark::DoNotOptimize(pending);
  }

  void emptyCaches() const {
    for (QVSharedHangRegion* region : regions_) {
      auto* bytes = reinterpret_cast<char*>(region);
      for (size_t at = 0; at < sizeof(*region); at += 64) _mm_clflush(bytes + at);
    }
    _mm_mfence();
  }

 private:
  sim::SimPlatform sim_;
  std::unique_ptr<platform::MainQueue> queue_;
  std::vector<QVSharedHangRegion*> regions_;
  uint64_t now_ = 0;
};

const Watched& watched() {
  static const auto* instance = new Watched;
  return *instance;
}

template <void (Watched::*kPass)() const, bool kCold>
void pass(benchmark::State& state) {
  const Watched& all = watched();
  (all.*kPass)();
  const int64_t allocatedBefore = allocationsSoFar().count;
  size_t passes = 0;
  for (auto _ : state) {
    if (kCold) {
      state.PauseTiming();
      all.emptyCaches();
      state.ResumeTiming();
    }
    (all.*kPass)();
    ++passes;
  }
  const int64_t allocated = allocationsSoFar().count - allocatedBefore;
  state.counters["slots/s"] =
      benchmark::Counter(static_cast<double>(passes) * kProcesses * kSlots, benchmark::Counter::kIsRate);
  state.counters["allocations"] = static_cast<double>(allocated);
}

BENCHMARK(pass<&Watched::bareLoop, false>)->Name("bare loop, hot")->Unit(benchmark::kMicrosecond);
BENCHMARK(pass<&Watched::scan, false>)->Name("hang check, hot")->Unit(benchmark::kMicrosecond);
BENCHMARK(pass<&Watched::bareLoop, true>)->Name("bare loop, cold")->Unit(benchmark::kMicrosecond);
BENCHMARK(pass<&Watched::scan, true>)->Name("hang check, cold")->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
