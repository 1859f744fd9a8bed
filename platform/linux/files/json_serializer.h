#pragma once

#include <optional>
#include <string>

#include "platform/value.h"

namespace quorveld::linux_platform {

/// JSON text of `dictionary` with its keys in their order, no white space; a number that JSON has no word for
/// (infinite, not a number) is null. Nothing, and the reason in `error`, when a text in it is no UTF-8.
std::optional<std::string> toJson(const platform::Dictionary& dictionary, std::string& error);

}  // namespace quorveld::linux_platform
