#include <algorithm>
#include <memory>
#include <optional>
#include <system_error>

#include "base/limits.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/report_folder.h"
#include "base/settings.h"
#include "base/text.h"
#include "base/ticks.h"
#include "base/value_text.h"
#include "base/wall_time.h"
#include "hangs/class_side.h"
#include "hangs/own_counters.h"
#include "hangs/qv_process_info.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/platform.h"

// A report is written under the temporary directory and moved into the spool when it is whole: what stands in
// the spool is always complete.

namespace quorveld {

namespace {

using platform::Dictionary;
using platform::LogEventKind;

/// Service or activation type, process or bundle, date. Clients choose the first two, so they can't lead out
/// of the folder.
std::string reportFileName(const std::string& what, const std::string& who) {
  return fileNameComponent(what, kMaxFileNameComponentBytes) + "-" +
         fileNameComponent(who, kMaxFileNameComponentBytes) + "-" +
         reportDate(platform::current().clock.wallTime()) + std::string(kHangReports.finished.suffix);
}

/// The report's header: always these eight keys.
Dictionary infoDictionary(const std::string& reason, const std::string& serviceName,
                          const std::string& processPath, int32_t pid, uint64_t threadID, uint64_t startTicks,
                          uint64_t endTicks, platform::Array displayData) {
  return {
      {"Reason", {reason}},
      {"ServiceName", {serviceName}},
      {"ProcessPath", {processPath}},
      {"PID", {int64_t{pid}}},
      {"ThreadID", {static_cast<int64_t>(threadID)}},
      {"StartTime", {static_cast<int64_t>(startTicks)}},
      {"EndTime", {static_cast<int64_t>(endTicks)}},
      {"DisplayData", {std::move(displayData)}},
  };
}

/// Whom a report with this header is about; 0 in one of a launch.
int32_t pidIn(const Dictionary& infoDict) {
  const auto entry =
      std::find_if(infoDict.begin(), infoDict.end(), [](const auto& each) { return each.first == "PID"; });
  const auto* pid = entry == infoDict.end() ? nullptr : std::get_if<int64_t>(&entry->second.data);
  return pid ? static_cast<int32_t>(*pid) : 0;
}

/// The header as JSON text; nothing when it can't be made (logged).
std::optional<std::string> headerText(const Dictionary& infoDict, const std::string& processString) {
  std::string error;
  auto json = platform::current().files.serializeJson(infoDict, error);
  if (!json) {
    quorvelLog().standard("%s: Unable to serialize Info Dict into JSON: %s - %s\n", processString.c_str(),
                          describe(infoDict).c_str(), error.c_str());
  } else if (!isUtf8(*json)) {
    quorvelLog().standard("%s: Unable to create UTF8 string from JSON: %s\n", processString.c_str(),
                          describe(infoDict).c_str());
    json.reset();
  }
  return json;
}

/// A wall-clock time in ms since the reference date as ticks of the absolute-time clock.
uint64_t ticksOfActivationTime(uint64_t timeMs, uint64_t nowWallMs, uint64_t nowTickMs) {
  return truncateToUnsigned(static_cast<double>(nowTickMs + (timeMs - nowWallMs)) / msPerTick());
}

}  // namespace

bool QVProcessInfo::saveKelvaneForService(const std::string& service, const std::string& reason,
                                          uint64_t threadID, uint64_t startTicks, uint64_t endTicks) {
  const Dictionary infoDict = infoDictionary(reason, service, processPath_, pid_, threadID, startTicks,
                                             endTicks, displayStateArray());
  return saveKelvaneWithFileName(reportFileName(service, processName_), infoDict, startTicks, endTicks,
                                 processName_);
}

bool QVProcessInfo::saveKelvaneWithFileName(const std::string& fileName, const Dictionary& infoDict,
                                            uint64_t startTicks, uint64_t endTicks,
                                            const std::string& processString) {
  const Log log = quorvelLog();
  const Log loss = log.about({.kind = LogEventKind::reportLost});
  platform::Files& files = platform::current().files;
  const std::string finalPath = std::string(kSpoolDirectory) + "/" + fileName;
  const std::string tempPath = std::string(kTemporaryDirectory) + "/" + fileName;

  log.info("Attempting to save kelvane at %s", tempPath.c_str());
  const RoomForReport room = makeRoomForReport(kHangReports);
  countRemovedReports(kHangReports, room.removed);
  std::error_code error = room.error;
  // What is left of a killed daemon's and can't be removed is not written over: its end would stand behind
  // that of a shorter report.
  if (!error && files.kind(tempPath) != platform::EntryKind::missing)
    error = std::make_error_code(std::errc::file_exists);
  auto file = error ? nullptr : files.createProtected(tempPath, error);
  if (!file) {
    loss.standard("%s: Could not create file - won't take a kelvane: %s %s", processString.c_str(),
                  tempPath.c_str(), error.message().c_str());
    return false;
  }
  const auto header = headerText(infoDict, processString);
  if (!header) {
    files.remove(tempPath);
    return false;
  }
  platform::Clock& clock = platform::current().clock;
  const uint64_t before = clock.absoluteTime();
  const bool dumped =
      classSide().traceCapture.dumpKelvaneToFile(file->descriptor(), startTicks, endTicks, *header);
  countCapture(static_cast<double>(clock.absoluteTime() - before) * msPerTick());
  if (!dumped) {
    loss.standard("%s: Unable to save kelvane data to file.\n", processString.c_str());
    files.remove(tempPath);
    return false;
  }
  const ReportFinding finding = classSide().traceCapture.lastFinding();
  log.about({.kind = LogEventKind::reportSaved,
             .pid = pidIn(infoDict),
             .reportPath = finalPath,
             .durationMs = msPerTick() * static_cast<double>(endTicks - startTicks),
             .cause = finding.cause,
             .culprit = finding.culprit,
             .signature = finding.signature})
      .info("%s: Moving kelvane to spool: %s\n", processString.c_str(), finalPath.c_str());
  files.finish(std::move(file), tempPath, finalPath, [loss, processString](std::error_code failure) {
    if (!failure) return;
    loss.standard("%s: Unable to move kelvane to final path: %s", processString.c_str(),
                  failure.message().c_str());
  });
  // The capture was made, which is what a credit pays for: this counts as saved, wherever the file ends.
  return true;
}

void QVProcessInfo::saveActivationKelvane(const std::string& type, const std::string& reason,
                                          const std::string& bundleID, uint64_t startTimeMs,
                                          uint64_t endTimeMs, const ActivatedProcess& process) {
  const Log log = quorvelLog();
  const Log refusal = log.about({.kind = LogEventKind::reportRefused});
  ClassSide& state = classSide();
  platform::Clock& clock = platform::current().clock;
  const uint64_t nowWallMs = activationTimeMs(clock.wallTime());
  const uint64_t nowTickMs = truncateToUnsigned(msPerTick() * static_cast<double>(clock.absoluteTime()));
  const uint64_t startTicks = ticksOfActivationTime(startTimeMs, nowWallMs, nowTickMs);
  const uint64_t endTicks = ticksOfActivationTime(endTimeMs, nowWallMs, nowTickMs);

  if (!settings().enableKelvane) {
    refusal.standard("Quorvel kelvane support is disabled, not saving a report for %s activation!",
                     bundleID.c_str());
    countRefused("disabled");
    return;
  }
  if (!state.traceCapture.isKelvaneAvailable()) {
    refusal.standard(
        "Tried to save kelvane for %s activation, but kelvane support is not present on this device!",
        bundleID.c_str());
    countRefused("no-library");
    return;
  }
  if (!checkActivationAppCredit(bundleID)) {
    refusal.standard("%s is out of credits. Not saving a report!", bundleID.c_str());
    countRefused("process-limit");
    return;
  }
  DailyAllowance& daily = state.activationKelvanes;
  if (daily.credits < 1) {
    refusal.standard(
        "Device is out of Daily Log credits, hit the Daily Log limit of %u. Not saving a report!",
        static_cast<uint32_t>(daily.maximum));
    countRefused("daily-limit");
    return;
  }
  const Dictionary infoDict =
      infoDictionary(reason, type, bundleID, 0, 0, startTicks, endTicks, displayStateArray());
  state.traceCapture.nameLaunch(process.pid, process.connectedTicks);
  if (!saveKelvaneWithFileName(reportFileName(type, bundleID), infoDict, startTicks, endTicks, bundleID)) {
    countLost();
    return;
  }
  --daily.credits;
  log.info("Daily Launch Log credits: %u -> %u", static_cast<uint32_t>(daily.credits + 1),
           static_cast<uint32_t>(daily.credits));
  deductActivationAppCredit(bundleID);
}

}  // namespace quorveld
