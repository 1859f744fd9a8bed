#pragma once

#include <random>

#include "platform/platform.h"
#include "tests/sim/fault_plan.h"
#include "tests/sim/sim_files.h"
#include "tests/sim/sim_ipc.h"
#include "tests/sim/sim_kernel.h"
#include "tests/sim/sim_queues.h"
#include "tests/sim/sim_services.h"
#include "tests/sim/sim_trace_library.h"

namespace quorveld::sim {

/// The seed of this run: QUORVELD_SEED, or else drawn once.
uint64_t runSeed();

/// A whole operating system that does what a test says, the same every time for one seed.
///
/// Installed as the platform as long as it lives, with the time zone UTC and fresh `settings()`. When the
/// test has failed by its end, the seed is printed. Everything runs on the test's thread.
class SimPlatform {
 public:
  SimPlatform();
  ~SimPlatform();
  SimPlatform(const SimPlatform&) = delete;
  SimPlatform& operator=(const SimPlatform&) = delete;

  void advance(std::chrono::nanoseconds time) { queues.advance(time); }
  void settle() { queues.settle(); }

  FaultPlan faults;
  std::mt19937_64 random{runSeed()};
  SimAnalytics analytics;
  SimClock clock{faults};
  SimDevice device{random};
  SimFiles files{faults, clock};
  SimIpc ipc;
  SimKernel kernel{faults};
  SimLogs logs;
  SimNotifications notifications{faults};
  SimPowerLog powerLog;
  SimPreferences preferences{faults};
  SimQueues queues{clock, random};
  SimRenderServer renderServer{faults};
  SimTraceLibraries traceLibraries{faults};

 private:
  const platform::Platform services_{analytics, clock,  device,       files,         kernel,   ipc,
                                     kernel,    kernel, logs,         notifications, powerLog, preferences,
                                     kernel,    queues, renderServer, traceLibraries};
};

}  // namespace quorveld::sim
