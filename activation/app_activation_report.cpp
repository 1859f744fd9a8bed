#include "activation/app_activation.h"
#include "perfstats/activation_report.h"

namespace quorveld {

namespace {

enum ReportingMethod : uint32_t { kConsole = 1, kJSON = 2, kPowerLog = 3 };

}  // namespace

void AppActivation::logAppActivationData(uint32_t reportingMethod) {
  const ActivationReport report = {
      .snapshotTypesToRecord = snapshotTypesToRecord_,
      .startSnapshot = startSnapshot_.get(),
      .endSnapshot = endSnapshot_.get(),
      .pid = pid_,
      .processName = processName_,
      .bundleID = bundleID_,
      .appActivationID = appActivationID_,
      .startTimestamp = startTimestamp_,
      .systemUptime = systemUptime_,
      .wallTime = wallTime_,
      .appActivationResult = appActivationResult_,
      .appActivationType = appActivationType_,
      .appActivationFlags = appActivationFlags_,
  };
  switch (reportingMethod) {
    case kConsole:
      return logAppActivationDataToConsole(report);
    case kJSON:
      return logAppActivationDataAsJSON(report);
    case kPowerLog:
      return logAppActivationDataToPelmar(report);
    default:
      return;
  }
}

}  // namespace quorveld
