#include "base/log.h"
#include "hangs/class_side.h"
#include "hangs/qv_process_info.h"

namespace quorveld {

void QVProcessInfo::addDisplayStateChangeEvent(uint64_t timestampTicks, int32_t status, uint32_t extra) {
  ClassSide& state = classSide();
  state.displayStateRing[state.displayStateNext] = {timestampTicks, status, extra};
  state.displayStateNext = (state.displayStateNext + 1) % state.displayStateRing.size();
}

platform::Array QVProcessInfo::displayStateArray() {
  const ClassSide& state = classSide();
  platform::Array array;
  for (size_t i = 0; i < state.displayStateRing.size(); ++i) {
    const DisplayStateEvent& event =
        state.displayStateRing[(state.displayStateNext + i) % state.displayStateRing.size()];
    if (event.timestampTicks == 0) continue;
    quorvelLog().debug("timestamp: %llu, status: %d", static_cast<unsigned long long>(event.timestampTicks),
                       event.status);
    array.push_back({event.timestampTicks});
    array.push_back({int64_t{event.status}});
  }
  return array;
}

}  // namespace quorveld
