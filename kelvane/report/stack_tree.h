#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kelvane/capture/captured_process.h"
#include "kelvane/report/json_writer.h"

namespace kelvane {

/// All stacks of a report as one tree, in which equal beginnings are shared: its dictionary of stack frames.
///
/// A stack is known by the id of its innermost frame; 0 is an empty one. A caller's id is less than that of
/// the frame that it called.
class StackTree {
 public:
  /// `process` must outlive this.
  explicit StackTree(const ProcessCapture& process) : process_(process) {}

  /// Both innermost first, the user's frames as indices into the process's.
  uint32_t add(const std::vector<uint32_t>& userFrames, const std::vector<std::string>& kernelFrames);
  /// The ids of a stack's frames, outermost first.
  std::vector<uint32_t> pathTo(uint32_t id) const;
  std::string nameOf(uint32_t id) const;
  /// "user" or "kernel".
  const char* kindOf(uint32_t id) const { return nodes_[id - 1].kernelFrame ? "kernel" : "user"; }

  void write(JsonWriter& json) const;

 private:
  struct Node {
    uint32_t parent = 0;
    const Frame* frame = nullptr;              // of the process, or
    const std::string* kernelFrame = nullptr;  // of the kernel
  };

  uint32_t addNode(Node node);

  const ProcessCapture& process_;
  std::vector<Node> nodes_;  // by id - 1
  std::map<std::pair<uint32_t, const void*>, uint32_t> known_;
  std::map<std::string, uint32_t> kernelFrames_;
};

}  // namespace kelvane
