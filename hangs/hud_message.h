#pragma once

namespace quorveld {

/// Shows one line on the screen of an internal build that has QuorvelEnableHUD on, cut to 99 bytes; otherwise
/// does nothing. Work queue only.
[[gnu::format(printf, 1, 2)]] void setHUDMessage(const char* format, ...);

/// Takes the line off the screen, under the same conditions.
void clearHUDMessage();

}  // namespace quorveld
