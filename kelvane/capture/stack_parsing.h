#pragma once

#include <span>
#include <vector>

#include "kelvane/capture/findings_area.h"
#include "kelvane/capture/process_capture.h"

namespace kelvane {

/// Makes frames of stacks in a process of its own, which has no rights (sandbox/rights.h) before it sees the
/// first byte of a file, and which publishes each stack when it is done.
///
/// It gets a file of the process when it asks for it, as an open descriptor: opening takes rights, and may
/// take for ever. Opening happens here, in the process that looks, until parsing has ended or the deadline.
class StackParsing {
 public:
  /// Publishes into `parsed`, and can't touch `look`. It is a child of this process's parent, and keeps
  /// `descriptors` open.
  StackParsing(const CaptureTarget& target, FindingsArea& look, FindingsArea& parsed,
               std::vector<int> descriptors)
      : target_(target), look_(look), parsed_(parsed), descriptors_(std::move(descriptors)) {}

  void run(int processDir, const std::vector<MappedModule>& modules, const CopiedStacks& stacks,
           const Deadline& deadline);

 private:
  [[noreturn]] void parse(pid_t parent, int socket, const std::vector<MappedModule>& modules,
                          const CopiedStacks& stacks);

  const CaptureTarget target_;
  FindingsArea& look_;
  FindingsArea& parsed_;
  std::vector<int> descriptors_;
};

}  // namespace kelvane
