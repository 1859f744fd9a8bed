#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "abi/kelvane.h"
#include "kelvane/base/limits.h"
#include "kelvane/launch/arguments.h"
#include "kelvane/launch/capture_program.h"
#include "kelvane/launch/left_behind.h"
#include "kelvane/launch/sampler_program.h"
#include "kelvane/report/dump_request.h"
#include "kelvane/report/finding.h"
#include "kelvane/report/json_writer.h"
#include "kelvane/report/report.h"
#include "kelvane/report/report_file.h"

namespace kelvane {
namespace {

/// Appends the report that a program has made; why it can't be had, else empty.
std::string copyReport(int from, ReportFile& file) {
  std::vector<char> piece(size_t{64} * 1024);
  for (size_t copied = 0; copied < kMaxReportBytes;) {
    const ssize_t got = pread(from, piece.data(), piece.size(), static_cast<off_t>(copied));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errorText(errno);
    if (got == 0) return copied > 0 ? "" : "it wrote nothing";
    file.write({piece.data(), static_cast<size_t>(got)});
    copied += static_cast<size_t>(got);
  }
  return "it wrote more than " + std::to_string(kMaxReportBytes) + " bytes";
}

SamplerProgram& sampler() {
  static SamplerProgram program;
  return program;
}

// Several threads may dump at once.
thread_local kelvane_finding lastFinding{};
thread_local kelvane_launch nextLaunch{};

bool dump(int fd, const kelvane_options* options) {
  lastFinding = {};
  const kelvane_launch launch = std::exchange(nextLaunch, {});
  // In a host that unloads the library those are forgotten, and gone when the kernel lets them.
  static LeftBehind leftBehind;
  std::optional<ReportFile> file(fd);
  if (!file->isOpen()) return false;
  const std::string reason = reasonOf(options);
  DumpRequest request = parseRequest(options);
  nameLaunch(launch, request);
  uid_t user = 0;
  // A header of a launch names no thread, and so its process's first one.
  const pid_t pid = request.launch ? request.launch->pid : request.pid.value_or(0);
  const std::string notLooking = pid != 0 ? leftBehind.whyNotLook(pid, user) : "";
  const UniqueFd samples = pid != 0 ? sampler().requestSamples(pid, request.threadId) : UniqueFd();
  CaptureProgram program(reason, argumentsOf(request, notLooking), samples.get());
  std::string failure = program.await();
  leftBehind.add(pid, user, program);
  if (failure.empty()) failure = copyReport(program.report(), *file);
  if (!failure.empty()) {
    file.emplace(fd);
    JsonWriter json(*file);
    writeReport(makeBareReport(std::move(request), "what looks at it: " + failure), json);
    file->write('\n');
  } else {
    lastFinding = readFinding(program.finding());
  }
  return file->finish();
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
  errno = errnoBefore;
  return whole;
}

void kelvane_last_finding(kelvane_finding* finding) {
  *finding = kelvane::lastFinding;
}

void kelvane_name_launch(const kelvane_launch* launch) {
  kelvane::nextLaunch = *launch;
}

const char* kelvane_sample_pending(const kelvane_pending* pending, size_t count) {
  static std::string why;
  int errnoBefore = errno;
  try {
    why = kelvane::sampler().sample({pending, count});
  } catch (...) {
    // Out of memory, most likely: nothing is sampled this time.
    why.clear();
  }
  errno = errnoBefore;
  return why.empty() ? nullptr : why.c_str();
}
