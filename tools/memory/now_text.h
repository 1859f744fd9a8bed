#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/memory/memory_now.h"

namespace quorvelctl {

enum class NowBy { process, program, cgroup, user };

/// What is taken together in one row: a process, or all of a program, a user or a control group.
struct NowRow {
  std::string name;  ///< may hold anything
  std::string user;  ///< empty: of several
  std::string commandLine;
  int32_t pid = 0;  ///< 0: several
  size_t count = 0;
  uint64_t ownBytes = 0;  ///< what ending it would give back
  uint64_t pssBytes = 0;
  uint64_t ussBytes = 0;
  uint64_t swapBytes = 0;
  uint64_t hugeBytes = 0;
  uint64_t sharedBytes = 0;
  uint64_t fileBytes = 0;
  uint64_t tableBytes = 0;
  bool isUpperBound = false;
};

/// What rows can be sorted by: "size", "pss", "uss", "swap", "huge", "shared", "file", "tables", "name".
std::vector<std::string> nowSortKeys();

/// The processes taken together, the most by `sort` first (by "name": in its order).
std::vector<NowRow> nowRows(const std::vector<NowProcess>& processes, NowBy by, const std::string& sort);

struct NowLayout {
  NowBy by = NowBy::process;
  std::string sort = "size";
  size_t maxRows = 20;
  size_t width = 0;  ///< of the terminal, in characters; 0: no limit
};

/// Where the memory is: the account, the rows with what became of each since `before` (null: none), what is
/// shared, zones. No line is longer than the layout's width.
std::string memoryNowText(const MemoryNow& now, const NowLayout& layout, const std::vector<NowRow>* before);

}  // namespace quorvelctl
