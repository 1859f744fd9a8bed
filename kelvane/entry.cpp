#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "abi/kelvane.h"
#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/capture/capture_worker.h"
#include "kelvane/capture/process_scan.h"
#include "kelvane/capture/thread_process.h"
#include "kelvane/report/dump_request.h"
#include "kelvane/report/json_writer.h"
#include "kelvane/report/report.h"
#include "kelvane/report/report_file.h"
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
std::optional<Verdict> verdictOn(const TickSpan& hang, const Report& report, const Pressure& pressure) {
  uint64_t fromNs = nsOfTicks(hang.start);
  uint64_t toNs = std::min(nsOfTicks(hang.end), report.capturedAtNs);
  if (fromNs >= toNs) return std::nullopt;
  return judge({fromNs, toNs, report.recording, report.process, report.processes, pressure, findProcess});
}

Report capture(const kelvane_options* options) {
  Report report;
  report.capturedAtNs = monotonicNs();
  Pressure pressure = readPressure();
  Deadline deadline(kCaptureBudget);
  report.request = parseRequest(options);
  const DumpRequest& request = report.request;
  std::optional<CaptureWorker> worker;
  if (request.pid) worker.emplace(CaptureTarget{*request.pid, request.threadId, request.symbolicate});
  if (request.hang) report.recording = recordingOf(*request.hang, report.capturedAtNs);
  report.processes = scanProcesses(deadline);
  if (worker) report.process = worker->take(deadline);
  if (request.hang) report.verdict = verdictOn(*request.hang, report, pressure);
  report.captureNs = monotonicNs() - report.capturedAtNs;
  return report;
}

bool dump(int fd, const kelvane_options* options) {
  ReportFile file(fd);
  JsonWriter json(file);
  writeReport(capture(options), json);
  file.write('\n');
  return file.finish();
}

}  // namespace
}  // namespace kelvane

const char* const KSPDumpOptions_ReasonString = KELVANE_KEY_REASON_STRING;
const char* const KSPDumpOptions_NoSymbolicate = KELVANE_KEY_NO_SYMBOLICATE;
const char* const KSPDumpOptions_MinTimestamp = KELVANE_KEY_MIN_TIMESTAMP;
const char* const KSPDumpOptions_MaxTimestamp = KELVANE_KEY_MAX_TIMESTAMP;

bool kelvane_dump_output_with_options_sync(int fd, const kelvane_options* options) {
  int errnoBefore = errno;
  bool whole = false;
  try {
    whole = kelvane::dump(fd, options);
  } catch (...) {
    // Out of memory, most likely: the caller removes the part that was written.
    whole = false;
  }
  // The host is small and stays up for months; what a capture needed goes back at once.
  malloc_trim(0);
  errno = errnoBefore;
  return whole;
}
