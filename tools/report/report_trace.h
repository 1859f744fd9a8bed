#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/report/json_access.h"

namespace quorvelctl {

/// One event of a report's trace that a timeline shows.
struct TraceEvent {
  enum class Kind : uint8_t { cpu, state, hang, wakeup, signpost };

  Kind kind = Kind::cpu;
  uint32_t text = 0;  ///< index into Trace::texts
  int64_t track = 0;  ///< a CPU's number, or the id of the track
  int64_t tid = 0;    ///< the thread that had the CPU; 0: not said
  double startUs = 0;
  double durationUs = 0;
};

struct Trace {
  std::vector<TraceEvent> events;  ///< as they stood in the report
  std::vector<std::string> texts;
  /// By thread, the id of the innermost frame of its stack.
  std::unordered_map<int64_t, std::string> innermostFrames;
};

/// Gathers a trace from its events, one at a time, so that the JSON of all of them is never held at once.
class TraceReader {
 public:
  void take(const Json& event);
  /// What was taken; the reader is empty afterwards.
  Trace finish();

 private:
  uint32_t textIndex(const std::string& text);

  Trace trace_;
  std::unordered_map<std::string, uint32_t> textIndexes_;
};

}  // namespace quorvelctl
