#pragma once

#include <string_view>

#include "platform/log.h"

namespace quorveld::linux_platform {

/// The 128 bits in hexadecimal under which the journal's catalog explains lines of that kind; empty: none.
/// Others look for lines by them, so they stay what they are.
std::string_view messageId(platform::LogEventKind kind);

/// Whether lines of that kind say that something is lost.
bool isLoss(platform::LogEventKind kind);

}  // namespace quorveld::linux_platform
