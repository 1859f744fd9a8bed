#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/report/report.h"

namespace quorvelctl {

/// The verdict in words, for a terminal: the sentence first.
std::string verdictText(const ReportVerdict& verdict, const ReportHeader& header);

/// An indented table below its heading; its first row names the columns. Nothing when there is no other.
std::string tableSection(const std::string& heading, const std::vector<std::vector<std::string>>& rows);

/// Whether so little of the hang isn't worth a line.
bool isNegligible(double ms, const ReportVerdict& verdict);

/// "the hung thread": whose time the verdict tells.
std::string_view followedText(const ReportHeader& header);

/// The causes that a verdict may have.
const std::vector<std::string>& causeNames();
/// "likely cause: disk"; "cause unknown" of one that isn't known.
std::string_view causeText(const std::string& cause);

// Its parts, as they came from the report: not yet fit for a terminal or a page.

/// "worker (43) of viewer (41)", or "of the same process" where it is the hung one's.
std::string threadText(const VerdictThread& thread, const ReportHeader& header);
/// Whether the chain ends in this thread.
bool isCulprit(const ReportMetadata& report, int64_t tid);
/// One of the chain: "viewer (41)", "worker (43) of the same process".
std::string linkText(const ReportVerdict& verdict, const ReportHeader& header, size_t index);
/// The earlier one of the chain for which the last one waits: a deadlock. Nothing of others.
std::optional<size_t> backTo(const std::vector<ReportVerdict::Link>& chain, size_t index);
/// What the link waits for or does, and how sure that is.
std::string stepText(const ReportVerdict::Link& link);
/// Who, or what, kept the hung thread from going on: who asked most of a disk, those at the end of the chain,
/// who had its CPU, or the function that it was in itself; of a launch the thread itself. Empty when nobody
/// is known.
std::string culpritOf(const ReportMetadata& metadata);
/// "12 requests, 3.4 MB read, 0 B written; busy for 210 ms, the slowest took 18 ms"
std::string diskText(const ReportVerdict::Disk& disk);
/// "some tasks waited 12.5 % of the last 10 s, all 3.0 %"
std::string pressureText(const ReportVerdict::Pressure& pressure);
/// On what the verdict rests, and how much of the window it covers.
std::string evidenceText(const ReportVerdict::Evidence& evidence, const ReportHeader& header);
/// "97.8 %"; "-" of nothing.
std::string shareText(double part, double whole);
/// "+1.02 s" into the hang, or "-500 ms" before it.
std::string offsetText(double atUs, const ReportHeader& header);

}  // namespace quorvelctl
