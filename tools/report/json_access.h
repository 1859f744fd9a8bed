#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace quorvelctl {

using Json = nlohmann::json;

// Members of a JSON object that others wrote: one that is missing, or of another type, reads as empty or 0,
// and so do all members of what is no object.

const Json& member(const Json& object, const char* key);
std::string textMember(const Json& object, const char* key);
double numberMember(const Json& object, const char* key);
/// A fraction is cut off; what no 64 bits hold is 0.
int64_t integerMember(const Json& object, const char* key);

/// What `rowOf` makes of each object of an array, of the first ones: no report has more.
template <typename Row, typename RowOf>
std::vector<Row> rowsOf(const Json& json, RowOf rowOf) {
  constexpr size_t kMaxRowsRead = 100;
  std::vector<Row> rows;
  for (const Json& row : json) {
    if (row.is_object() && rows.size() < kMaxRowsRead) rows.push_back(rowOf(row));
  }
  return rows;
}

}  // namespace quorvelctl
