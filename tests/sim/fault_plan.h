#pragma once

#include <array>
#include <system_error>

namespace quorveld::sim {

/// Every operation of the platform that can fail.
enum class Op {
  bootTime,
  executablePath,
  makeDirectory,
  remove,
  createFile,
  writeFile,
  closeFile,
  move,
  rename,
  serializeJson,
  encodeJson,  ///< serialised, but the bytes are no UTF-8
  mapMemory,
  subscribe,
  notificationState,
  synchronise,
  readManaged,
  openLibrary,
  renderPort,
  processListBytes,
  processList,
  processUsage,
  processName,
  vmStatistics,
  priorityList,
  ledgerTemplate,
  ledger,
  memoryInfo,
  loadedExtensions,
  count_,
};

/// Says which calls of the platform fail: the nth from now, once, or every one from now on.
class FaultPlan {
 public:
  void failOnce(Op op, int nth = 1, std::errc reason = std::errc::io_error) {
    at(op) = {.countdown = nth, .always = false, .reason = reason};
  }
  void failAlways(Op op, std::errc reason = std::errc::io_error) {
    at(op) = {.countdown = 0, .always = true, .reason = reason};
  }
  void heal(Op op) { at(op) = {}; }

  /// Counts one call of `op`; the reason when this one is to fail.
  std::error_code take(Op op) {
    Fault& fault = at(op);
    const bool fails = fault.always || (fault.countdown > 0 && --fault.countdown == 0);
    return fails ? std::make_error_code(fault.reason) : std::error_code();
  }
  bool fails(Op op) { return static_cast<bool>(take(op)); }

 private:
  struct Fault {
    int countdown = 0;
    bool always = false;
    std::errc reason{};
  };

  Fault& at(Op op) { return faults_[static_cast<size_t>(op)]; }

  std::array<Fault, static_cast<size_t>(Op::count_)> faults_{};
};

}  // namespace quorveld::sim
