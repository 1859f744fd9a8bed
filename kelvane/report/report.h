#pragma once

#include "kelvane/capture/captured_process.h"
#include "kelvane/capture/process_scan.h"
#include "kelvane/recording/recording.h"
#include "kelvane/report/dump_request.h"
#include "kelvane/report/json_writer.h"
#include "kelvane/verdict/launch.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// All that a report is made from.
struct Report {
  DumpRequest request;
  ProcessCapture process;
  ProcessScan processes;
  Recording recording;
  std::optional<Verdict> verdict;  // of a report with a hang
  std::optional<Launch> launch;    // of one of a launch whose process is known
  uint64_t capturedAtNs = 0;       // CLOCK_MONOTONIC, at the beginning
  uint64_t captureNs = 0;          // how long looking took
};

/// The report of a request for which nothing could be looked at, and why.
Report makeBareReport(DumpRequest request, const std::string& why);

/// Writes the report as one JSON object (docs/report-format.md).
void writeReport(const Report& report, JsonWriter& json);

}  // namespace kelvane
