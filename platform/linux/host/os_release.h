#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace quorveld::linux_platform {

/// The assignments of an os-release(5) text by name, unquoted; the last one of a name counts. A line that is
/// no assignment is skipped, as is one whose quote is not closed.
std::map<std::string, std::string, std::less<>> parseOsRelease(std::string_view text);

}  // namespace quorveld::linux_platform
