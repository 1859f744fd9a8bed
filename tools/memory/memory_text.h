#pragma once

#include <cstddef>
#include <string>

#include "tools/memory/memory_diff.h"
#include "tools/memory/memory_report.h"

namespace quorvelctl {

/// The report in words and tables, largest first; what a table leaves out after `maxRows` rows is summed up
/// below it.
std::string memoryText(const MemoryReport& report, size_t maxRows);

/// "2026-11-21 07:10:52" of a report's timestamp "2026-11-21-071052"; what looks otherwise stays.
std::string timeText(const std::string& timestamp);

/// Its first table: what all memory is used for, with a word about it where it doesn't add up.
std::string accountText(const MemoryReport& report);

/// What a reader must know of an account that doesn't add up: what is likely behind memory that nothing
/// accounts for, or that the figures contradict each other. Empty when it is in order.
std::string doubtText(const MemoryReport& report, const MemoryAccount& account);

/// What grew and what shrank from `older` to `newer`, in words and tables, largest change first.
std::string memoryDiffText(const MemoryReport& older, const MemoryReport& newer, size_t maxRows);

}  // namespace quorvelctl
