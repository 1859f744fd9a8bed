#include "perfstats/report_state.h"

namespace quorveld {

ReportState& reportState() {
  static ReportState state;
  return state;
}

void resetLargestTrackedPid() {
  reportState().largestTrackedPid = -1;
}

}  // namespace quorveld
