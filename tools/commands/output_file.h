#pragma once

#include <string>

#include "tools/base/context.h"

namespace quorvelctl {

/// Puts `bytes` into the file that the user named for the output. Links are followed: only a regular file may
/// be replaced, neither a device nor a link to one.
void writeOutput(Context& context, const std::string& path, const std::string& bytes);

}  // namespace quorvelctl
