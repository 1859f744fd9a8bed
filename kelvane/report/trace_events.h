#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kelvane/capture/captured_process.h"
#include "kelvane/report/dump_request.h"
#include "kelvane/report/json_writer.h"

namespace kelvane {

/// What trace viewers draw: the events and the dictionary of stack frames, in Chrome's trace event format.
///
/// A viewer shows the hang as an interval on the hung thread, with the stack in it as nested intervals,
/// outermost first; the other threads' stacks are drawn in the same way at the moment of their capture.
/// Complete ("X") events carry that, since not every viewer draws samples; the samples ("P") are there
/// besides.
class TraceEvents {
 public:
  /// Both must outlive this. `capturedAtNs` stands in where a stack or a hang has no time of its own.
  TraceEvents(const DumpRequest& request, const ProcessCapture& process, uint64_t capturedAtNs);

  /// Adds to an array of events that is open.
  void writeEvents(JsonWriter& json) const;
  void writeStackFrames(JsonWriter& json) const;

 private:
  /// One entry of "stackFrames"; its id is its index + 1, a parent of 0 is none.
  struct Node {
    uint32_t parent = 0;
    const Frame* frame = nullptr;              // of the process, or
    const std::string* kernelFrame = nullptr;  // of the kernel
  };

  uint32_t addStack(const ThreadCapture& thread);
  uint32_t addNode(Node node);

  void writeName(JsonWriter& json, const char* what, int64_t tid, const std::string& name) const;
  void writeInterval(JsonWriter& json, int64_t tid, const std::string& name, const char* category,
                     uint64_t startNs, uint64_t durationNs) const;
  void writeHang(JsonWriter& json) const;
  void writeThread(JsonWriter& json, size_t index) const;
  void writeNodes(JsonWriter& json, uint32_t leaf, int64_t tid, uint64_t startNs, uint64_t durationNs) const;

  std::string nodeName(const Node& node) const;

  const DumpRequest& request_;
  const ProcessCapture& process_;
  uint64_t capturedAtNs_;
  int64_t pid_;  // the track of the hang: the process and thread, if there are any
  int64_t hungThread_;
  std::vector<Node> nodes_;
  std::map<std::pair<uint32_t, const void*>, uint32_t> known_;
  std::map<std::string, uint32_t> kernelFrames_;
  std::vector<uint32_t> leaves_;  // for each thread, the node of its innermost frame; 0: no stack
};

}  // namespace kelvane
