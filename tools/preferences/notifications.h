#pragma once

#include <cstdint>
#include <string_view>
#include <system_error>

#include "tools/base/context.h"

namespace quorvelctl {

/// Whether `name` can name a notification: 1 to 255 bytes, no '/', no '.' before it.
bool isNotificationName(std::string_view name);

/// Posts a notification to the daemon (and any other subscriber) below the context's root. It needs leave to
/// write there; whether somebody listens isn't known.
[[nodiscard]] std::error_code post(const Context& context, std::string_view name, uint64_t state);

}  // namespace quorvelctl
