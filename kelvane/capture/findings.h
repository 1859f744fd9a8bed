#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>

#include "kelvane/capture/captured_process.h"

namespace kelvane {

/// A part of a capture as bytes, for addFindings.
std::string encodeFindings(const ProcessCapture& part);

/// Adds the parts in `bytes`, one after the other. What a part doesn't know it leaves out; lists are added to
/// those that are there, threads to those of the same id. False if the bytes are broken: what came before the
/// break has been added, and every index leads somewhere all the same.
bool addFindings(std::string_view bytes, ProcessCapture& whole);

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
