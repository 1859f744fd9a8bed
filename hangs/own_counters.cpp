#include "hangs/own_counters.h"

#include <string>

#include "platform/analytics.h"
#include "platform/platform.h"

namespace quorveld {

void countWatched(size_t processes) {
  platform::current().analytics.setScalar("com.corvix.quorvel.QVWatchedProcesses",
                                          static_cast<int64_t>(processes));
}

void countRefused(std::string_view reason) {
  platform::current().analytics.addToScalar("com.corvix.quorvel.QVReportsRefused." + std::string(reason), 1,
                                            {});
}

void countLost() {
  platform::current().analytics.addToScalar("com.corvix.quorvel.QVReportsLost", 1, {});
}

void countCapture(double durationMs) {
  platform::current().analytics.pushDistribution("com.corvix.quorvel.QVCapture", durationMs, {});
}

}  // namespace quorveld
