#include "kelvane/report/make_report.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/capture/capture_worker.h"
#include "kelvane/capture/process_scan.h"
#include "kelvane/capture/rivals.h"
#include "kelvane/capture/surroundings.h"
#include "kelvane/capture/thread_process.h"
#include "kelvane/timeline/missing_switches.h"
#include "kelvane/verdict/judge.h"

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

/// Nothing for a hang that is yet to come.
std::optional<Verdict> verdictOn(const TickSpan& hang, const Report& report, const Pressure& pressure,
                                 const Surroundings& before, const Surroundings& after) {
  uint64_t fromNs = nsOfTicks(hang.start);
  uint64_t toNs = std::min(nsOfTicks(hang.end), report.capturedAtNs);
  if (fromNs >= toNs) return std::nullopt;
  const auto rivals = [&] {
    return watchRivals(report.process.pid, report.process.hungThread, kRivalsWatch);
  };
  return judge({fromNs, toNs, report.recording, report.process, report.processes, pressure, before, after,
                rivals, findProcess});
}

}  // namespace

Report makeReport(DumpRequest asked, const std::string& notLooking) {
  Report report;
  report.capturedAtNs = monotonicNs();
  Pressure pressure = readPressure();
  Deadline deadline(kCaptureBudget);
  report.request = std::move(asked);
  const DumpRequest& request = report.request;
  const auto surroundings = [&] {
    return request.pid ? readSurroundings(*request.pid, request.threadId) : Surroundings{};
  };
  const Surroundings before = surroundings();
  std::optional<CaptureWorker> worker;
  if (request.pid && notLooking.empty())
    worker.emplace(CaptureTarget{*request.pid, request.threadId, request.symbolicate});
  if (request.hang) report.recording = recordingOf(*request.hang, report.capturedAtNs);
  report.processes = scanProcesses(deadline);
  if (worker) report.process = worker->take(deadline);
  if (request.pid && !worker) {
    report.process.pid = *request.pid;
    report.process.omissions.push_back({"process", notLooking});
  }
  if (request.hang) report.verdict = verdictOn(*request.hang, report, pressure, before, surroundings());
  report.captureNs = monotonicNs() - report.capturedAtNs;
  return report;
}

}  // namespace kelvane
