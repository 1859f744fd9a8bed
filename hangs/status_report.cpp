#include "base/log.h"
#include "hangs/class_side.h"
#include "hangs/qv_process_info.h"

namespace quorveld {

void QVProcessInfo::logStatus() {
  const Log log = quorvelLog();
  const ClassSide& state = classSide();
  log.standard("Status: %zu watched processes", state.watchedProcesses.size());
  for (const auto& process : state.watchedProcesses) {
    log.standard("Status:   %s %s", process->description().c_str(), process->processBundleID_.c_str());
  }
  log.standard("Status: reports left today: %d of %d short, %d of %d long, %d of %d slow activations",
               state.shortLogs.credits, state.shortLogs.maximum, state.longLogs.credits,
               state.longLogs.maximum, state.activationKelvanes.credits, state.activationKelvanes.maximum);
  for (const auto& [name, credits] : state.appCredits) {
    log.standard("Status:   %s has %u of %u credits for short hangs", name.c_str(), credits, kMaxAppCredits);
  }
}

}  // namespace quorveld
