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
  /// Publishes into that of `parsed` which stands for the process, and can't touch any other, nor `look`. It
  /// is a child of this process's parent, and keeps `descriptors` open.
  StackParsing(bool symbolicate, FindingsArea& look, std::span<FindingsArea> parsed,
               std::vector<int> descriptors)
      : symbolicate_(symbolicate), look_(look), parsed_(parsed), descriptors_(std::move(descriptors)) {}

  /// `number`: see ParseStacks.
  void run(size_t number, const CopiedProcess& process, const Deadline& deadline);

 private:
  [[noreturn]] void parse(pid_t parent, int socket, size_t number, const CopiedProcess& process);

  const bool symbolicate_;
  FindingsArea& look_;
  const std::span<FindingsArea> parsed_;
  std::vector<int> descriptors_;
};

}  // namespace kelvane
