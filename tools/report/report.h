#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/report/report_frame.h"
#include "tools/report/report_launch.h"
#include "tools/report/report_sampled.h"
#include "tools/report/report_trace.h"
#include "tools/report/report_verdict.h"

namespace quorvelctl {

/// Of the daemon's clock, on which reports tell times.
inline constexpr double kTicksPerUs = 24;
inline constexpr double kTicksPerMs = 1000 * kTicksPerUs;

/// What a report says of its hang. Texts come from the application and may hold anything.
struct ReportHeader {
  std::string reason;
  std::string serviceName;  ///< the hang's name
  std::string processPath;  ///< of an activation: the bundle id
  int64_t pid = 0;          ///< 0: an activation
  int64_t threadId = 0;
  int64_t startTicks = 0;
  int64_t endTicks = 0;
  /// Changes of the display before: ticks, and 0 off, -1 unknown, else on. Oldest first.
  std::vector<std::pair<int64_t, int64_t>> display;

  /// False for a trace of a time that somebody asked for.
  bool hasHang() const { return endTicks != 0; }
  double durationMs() const;
  std::string processName() const;
  /// "hang", "fence hang", "slow launch", or "trace" when there was no hang.
  std::string kind() const;
};

struct ReportThread {
  int64_t tid = 0;
  std::string name;
  int64_t pid = 0;      ///< of its process, if that is another than the hung one; else 0
  std::string process;  ///< likewise
  bool hung = false;
  std::string state;
  std::string waitChannel;
  std::string syscall;
  double userMs = 0;
  double systemMs = 0;
  std::vector<ReportFrame> userStack;    ///< innermost first
  std::vector<std::string> kernelStack;  ///< innermost first
  std::string noStack;                   ///< why there is no user stack
  std::string stackCutOff;               ///< why it ends early
};

/// What stands first in a report.
struct ReportMetadata {
  ReportHeader header;
  std::string madeAt;     ///< UTC
  std::string writtenBy;  ///< program and version
  double lookedAtUs = 0;  ///< CLOCK_MONOTONIC, when the stacks were copied; 0: not said
  std::string host;
  std::string signature;  ///< 16 hexadecimal digits; empty: it has none
  std::optional<ReportVerdict> verdict;
  std::optional<ReportLaunch> launch;  ///< of a slow launch whose process is known
  std::vector<std::pair<std::string, std::string>> leftOut;
};

struct Report : ReportMetadata {
  std::vector<ReportThread> threads;  ///< the hung one first; after its process's those of others
  Trace trace;
  ReportSampled sampled;
};

/// Reads a report's metadata alone: `text` may end anywhere behind it. Nothing, and why, when `text` is no
/// report.
std::optional<ReportMetadata> parseReportMetadata(std::string_view text, std::string& error);

/// Reads a whole report; a part that is missing or of another type stays empty.
std::optional<Report> parseReport(std::string_view text, std::string& error);

}  // namespace quorvelctl
