#pragma once

#include <cstdint>
#include <vector>

#include "kelvane/capture/captured_process.h"
#include "kelvane/recording/recording.h"
#include "kelvane/report/json_writer.h"
#include "kelvane/timeline/thread_timeline.h"

namespace kelvane {

/// What trace viewers draw of a recording: whom each CPU ran, the hung thread's states, its wake-ups, and the
/// marks that programs wrote.
class RecorderTracks {
 public:
  /// Both must outlive this.
  RecorderTracks(const Recording& recording, const ProcessCapture& process);

  /// What is beyond the limits of drawing.
  const std::vector<Omission>& omissions() const { return omissions_; }

  /// Adds to an array of events that is open.
  void writeEvents(JsonWriter& json) const;

 private:
  void leaveOut(const char* what, size_t drawn, size_t all);
  void writeCpus(JsonWriter& json) const;
  void writeStates(JsonWriter& json) const;
  void writeArrow(JsonWriter& json, const StateSpan& sleep) const;
  void writeMarks(JsonWriter& json) const;
  std::string nameOf(int32_t tid) const;
  std::string wakerName(const StateSpan& sleep) const;

  const Recording& recording_;
  const ProcessCapture& process_;
  std::vector<Omission> omissions_;
  uint64_t shortestRunNs_ = 0;  // shorter runs are not drawn
  std::vector<StateSpan> states_;
};

}  // namespace kelvane
