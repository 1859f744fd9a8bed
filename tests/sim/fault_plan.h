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
  void failOnce(Op op, int nth = 1, std::errc reason = std::errc::io_error) { plan(op, nth, false, reason); }
  void failAlways(Op op, std::errc reason = std::errc::io_error) { plan(op, 0, true, reason); }
  void heal(Op op) { plan(op, 0, false, {}); }

  /// Counts one call of `op`; the reason when this one is to fail.
  std::error_code take(Op op) {
    Fault& fault = at(op);
    const bool fails = fault.always || (fault.countdown > 0 && --fault.countdown == 0);
    fault.delivered += fails;
    return fails ? std::make_error_code(fault.reason) : std::error_code();
  }
  bool fails(Op op) { return static_cast<bool>(take(op)); }

  /// How many calls of `op` were made to fail so far.
  int delivered(Op op) const { return faults_[static_cast<size_t>(op)].delivered; }

 private:
  struct Fault {
    int countdown = 0;
    bool always = false;
    std::errc reason{};
    int delivered = 0;
  };

  void plan(Op op, int countdown, bool always, std::errc reason) {
    at(op) = {.countdown = countdown, .always = always, .reason = reason, .delivered = delivered(op)};
  }
  Fault& at(Op op) { return faults_[static_cast<size_t>(op)]; }

  std::array<Fault, static_cast<size_t>(Op::count_)> faults_{};
};

}  // namespace quorveld::sim
