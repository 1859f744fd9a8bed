#include "kelvane/report/make_report.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/capture/capture_worker.h"
#include "kelvane/capture/launched_look.h"
#include "kelvane/capture/process_scan.h"
#include "kelvane/capture/rivals.h"
#include "kelvane/capture/surroundings.h"
#include "kelvane/capture/thread_process.h"
#include "kelvane/timeline/launched_processes.h"
#include "kelvane/timeline/missing_switches.h"
#include "kelvane/verdict/judge.h"
#include "kelvane/verdict/launch_verdict.h"

namespace kelvane {
namespace {

/// The recording of a hang, with some context. It ends with the look at the process, which itself wakes and
/// stops threads.
Recording recordingOf(const TickSpan& hang, uint64_t lookNs) {
  constexpr uint64_t kContextNs = std::chrono::nanoseconds(kContext).count();
  uint64_t startNs = nsOfTicks(hang.start);
  uint64_t fromNs = std::min(startNs - std::min(startNs, kContextNs), lookNs);
  uint64_t toNs = std::clamp(nsOfTicks(hang.end) + kContextNs, fromNs, lookNs);
  Recording recording = readRecording(fromNs, toNs, Deadline(kRecordingBudget));
  addMissingSwitches(recording);
  return recording;
}

/// Whether the thread had a CPU between the two looks, rather than waited for one. Whoever shares a limited
/// amount of CPU time is as often kept from an idle CPU.
bool hadCpu(const Report& report, const Surroundings& before, const Surroundings& after) {
  const auto& threads = report.process.threads;
  if (threads.empty() || threads.front().facts.state != 'R' || after.limits.quota) return false;
  if (!before.schedule || !after.schedule || before.thread != after.thread) return false;
  return after.schedule->ranNs - before.schedule->ranNs >
         after.schedule->waitedNs - before.schedule->waitedNs;
}

/// Nothing for a hang that is yet to come.
std::optional<Verdict> verdictOn(const TickSpan& hang, const Report& report, const Pressure& pressure,
                                 const Surroundings& before, const Surroundings& after,
                                 const Deadline& deadline) {
  uint64_t fromNs = nsOfTicks(hang.start);
  uint64_t toNs = std::min(nsOfTicks(hang.end), report.capturedAtNs);
  if (fromNs >= toNs) return std::nullopt;
  const auto rivals = [&](pid_t process, pid_t thread) {
    return deadline.passed() ? std::nullopt : watchRivals(process, thread, kRivalsWatch);
  };
  return judge({fromNs, toNs, report.recording, report.process, report.processes, pressure, before, after,
                rivals, findProcess});
}

/// Of a launch, which is over: what counts is how it went.
void judgeLaunch(const TickSpan& span, const Pressure& pressure, Report& report) {
  const kelvane_launch& named = *report.request.launch;
  const uint64_t toNs = std::min(nsOfTicks(span.end), report.capturedAtNs);
  LaunchedLook look = lookAtLaunched(named.pid, toNs);
  if (!look.isThere() || look.madeNs >= report.recording.coveredFromNs)
    addMissingMaking(report.recording, named.pid);
  LaunchEvidence evidence{nsOfTicks(span.start),
                          toNs,
                          report.recording,
                          report.processes,
                          pressure,
                          std::move(look),
                          nsOfTicks(std::min(named.connected_ticks, span.end)),
                          findProcess,
                          &report.process};
  if (evidence.fromNs >= toNs) return;
  auto [launch, verdict] = kelvane::judgeLaunch(evidence);
  report.launch = std::move(launch);
  report.verdict = std::move(verdict);
}

}  // namespace

Report makeReport(DumpRequest asked, const std::string& notLooking) {
  Report report;
  report.capturedAtNs = monotonicNs();
  Pressure pressure = readPressure();
  Deadline deadline(kCaptureBudget);
  report.request = std::move(asked);
  const DumpRequest& request = report.request;
  // Where the process calls its threads by other numbers, the hung one is known only after the look.
  const auto named = static_cast<pid_t>(request.threadId);
  const Surroundings before =
      request.pid ? readSurroundings(*request.pid, named == 0 ? *request.pid : named) : Surroundings{};
  std::optional<CaptureWorker> worker;
  const pid_t looked = request.launch ? request.launch->pid : request.pid.value_or(0);
  if (looked != 0 && notLooking.empty())
    worker.emplace(CaptureTarget{looked, request.threadId, request.symbolicate, kSamplesDescriptor,
                                 /*samplesAlone=*/request.launch.has_value()});
  if (request.hang) report.recording = recordingOf(*request.hang, report.capturedAtNs);
  report.processes = scanProcesses(deadline);
  if (worker) report.process = worker->take(deadline);
  if (looked != 0 && !worker) {
    report.process.pid = looked;
    report.process.omissions.push_back({"process", notLooking});
  }
  if (request.hang && request.launch) {
    judgeLaunch(*request.hang, pressure, report);
  } else if (request.hang) {
    const Surroundings after =
        request.pid ? readSurroundings(*request.pid, report.process.hungThread) : Surroundings{};
    if (hadCpu(report, before, after)) addMissingArrival(report.recording, report.process.hungThread);
    report.verdict = verdictOn(*request.hang, report, pressure, before, after, deadline);
  }
  if (request.launch && !report.launch)
    report.request.omissions.push_back({"process", "no launch that is over is told to be its"});
  report.captureNs = monotonicNs() - report.capturedAtNs;
  return report;
}

}  // namespace kelvane
