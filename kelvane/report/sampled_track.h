#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kelvane/capture/captured_process.h"
#include "kelvane/report/dump_request.h"
#include "kelvane/report/json_writer.h"
#include "kelvane/report/stack_tree.h"
#include "kelvane/verdict/sampled_phases.h"

namespace kelvane {

/// Where the hung thread was in the course of the hang, as far as it was sampled: a table for the metadata,
/// and what viewers draw in its track.
class SampledTrack {
 public:
  /// All must outlive this; the stacks are added to `tree`.
  SampledTrack(const DumpRequest& request, const ProcessCapture& process, StackTree& tree);

  /// Nothing was sampled within the hang.
  bool isEmpty() const { return hang_.time.stretches.empty(); }
  /// As members of an object that is open.
  void writeTable(JsonWriter& json) const;
  /// Adds to an array of events that is open.
  void writeEvents(JsonWriter& json) const;

 private:
  /// A time in which the thread was in one stack; 0: not seen.
  struct Segment {
    uint64_t startNs = 0;
    uint64_t endNs = 0;
    uint32_t stack = 0;
  };

  uint32_t stackOf(std::optional<size_t> sample) const;
  uint32_t waitedIn(const Stretch& stretch) const;
  std::vector<Segment> segments() const;
  void beginEvent(JsonWriter& json, const char* phase, const std::string& name, const char* category,
                  uint64_t startNs) const;

  const ProcessCapture& process_;
  const StackTree& tree_;
  SampledHang hang_;
  std::vector<uint32_t> stacks_;  // of the samples
  uint32_t look_ = 0;             // the stack that the look at the process has found; of a launch none
};

}  // namespace kelvane
