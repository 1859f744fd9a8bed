#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelvane/capture/captured_process.h"
#include "kelvane/report/dump_request.h"
#include "kelvane/report/json_writer.h"
#include "kelvane/report/sampled_track.h"
#include "kelvane/report/stack_tree.h"

namespace kelvane {

/// What trace viewers draw: the events, in Chrome's trace event format.
///
/// A viewer shows the hang as an interval on the hung thread, with the stack in it as nested intervals,
/// outermost first, unless samples tell more; the other threads' stacks are drawn in the same way at the
/// moment of their capture. Complete ("X") events carry that, since not every viewer draws samples; the
/// samples ("P") are there besides.
class TraceEvents {
 public:
  /// All must outlive this; the stacks are added to `tree`. `capturedAtNs` stands in where a stack or a hang
  /// has no time of its own.
  TraceEvents(const DumpRequest& request, const ProcessCapture& process, StackTree& tree,
              const SampledTrack& sampled, uint64_t capturedAtNs);

  /// Adds to an array of events that is open.
  void writeEvents(JsonWriter& json) const;

 private:
  struct Track {
    int64_t pid;
    int64_t tid;
  };

  static void writeName(JsonWriter& json, const char* what, Track track, const std::string& name);
  static void writeInterval(JsonWriter& json, Track track, const std::string& name, const char* category,
                            uint64_t startNs, uint64_t durationNs);
  void writeHang(JsonWriter& json) const;
  void writeThread(JsonWriter& json, int64_t pid, const ThreadCapture& thread, uint32_t stack) const;
  void writeFrames(JsonWriter& json, uint32_t stack, Track track, uint64_t startNs,
                   uint64_t durationNs) const;

  const DumpRequest& request_;
  const ProcessCapture& process_;
  const StackTree& tree_;
  const SampledTrack& sampled_;
  uint64_t capturedAtNs_;
  int64_t pid_;  // the track of the hang: the process and thread, if there are any
  int64_t hungThread_;
  std::vector<uint32_t> stacks_;       // of the threads
  std::vector<uint32_t> otherStacks_;  // of those of other processes
};

}  // namespace kelvane
