#pragma once

#include <cstdint>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/threads/memory_map.h"

namespace kelvane {

// A socket of packets between the process that looks and the one that parses: a request is a module's index,
// its answer a byte, with the descriptor of the module's file if that could be opened.

/// Opens what the other end asks for, until that has gone or `deadline`. May block for good.
void serveFiles(int socket, int processDir, const std::vector<MappedModule>& modules,
                const Deadline& deadline);

/// The end that asks.
class FileRequests {
 public:
  /// `socket` is the caller's.
  explicit FileRequests(int socket) : socket_(socket) {}

  /// Waits for kFileWait. Where that isn't enough nothing more is asked for: the one file holds all up.
  UniqueFd ask(uint32_t module);
  bool areHeldUp() const { return heldUp_; }

 private:
  const int socket_;
  bool heldUp_ = false;
};

}  // namespace kelvane
