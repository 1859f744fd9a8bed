#pragma once

#include <sys/types.h>

#include "kelvane/capture/captured_process.h"

namespace kelvane {

/// Memory that processes share, into which one of them publishes findings as it makes them: it never waits
/// for the other, which can end it at any time and has what was published by then.
class FindingsArea {
 public:
  FindingsArea();
  FindingsArea(const FindingsArea&) = delete;
  FindingsArea& operator=(const FindingsArea&) = delete;
  ~FindingsArea() { unmap(); }

  explicit operator bool() const { return shared_ != nullptr; }
  /// Notes a further process that whoever publishes here has started, for the other to end it; 0: none.
  void noteProcess(pid_t pid);
  pid_t notedProcess() const;
  /// Nothing more is added once there is no room.
  void publish(const ProcessCapture& part);
  /// Adds all that was published to `whole`; whether it was whole and there was room for it.
  bool addTo(ProcessCapture& whole) const;
  /// In this process alone: it can't touch it any more.
  void unmap();

 private:
  struct Shared;
  Shared* shared_ = nullptr;
};

}  // namespace kelvane
