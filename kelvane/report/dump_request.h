#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "abi/kelvane.h"
#include "kelvane/base/omission.h"

namespace kelvane {

/// A span of CLOCK_MONOTONIC in ticks of 24 MHz; start <= end.
struct TickSpan {
  uint64_t start = 0;
  uint64_t end = 0;
};

/// What a call asks for: the options, and what the header among them says of the hang.
struct DumpRequest {
  /// The header's eight keys with their values as JSON text, in the order of the report; absent ones are
  /// missing.
  std::vector<std::pair<std::string, std::string>> header;
  /// The reason text itself, when it is no JSON object.
  std::string rawReason;
  std::vector<Omission> omissions;

  bool symbolicate = true;
  std::optional<uint64_t> minTicks;
  std::optional<uint64_t> maxTicks;

  /// The process and thread that the header names; no pid for a report that is about no process.
  std::optional<pid_t> pid;
  int64_t threadId = 0;
  /// Of a header that names no process: the one whose launch it is about, if the caller said so.
  std::optional<kelvane_launch> launch;
  std::string serviceName;
  std::string processPath;
  std::string reason;
  /// The header's StartTime and EndTime if they are a span, else the time window of the options.
  std::optional<TickSpan> hang;
};

/// Reads `options` (may be null: all defaults). Unknown keys and values of another type are ignored; a broken
/// header becomes an omission, never a failure.
DumpRequest parseRequest(const kelvane_options* options);

/// Notes the launch that the request is about, unless its header names a process.
void nameLaunch(const kelvane_launch& launch, DumpRequest& request);

}  // namespace kelvane
