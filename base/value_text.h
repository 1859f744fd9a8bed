#pragma once

#include <string>

#include "platform/value.h"

namespace quorveld {

/// A dictionary as people read it in a log line: `{key = value; list = (1, 2); }`. Texts stand as they are.
std::string describe(const platform::Dictionary& dictionary);

}  // namespace quorveld
