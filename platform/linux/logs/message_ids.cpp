#include "platform/linux/logs/message_ids.h"

namespace quorveld::linux_platform {

using platform::LogEventKind;

std::string_view messageId(LogEventKind kind) {
  switch (kind) {
    case LogEventKind::hang:
      return "1a352b9ecc5045ee8d5f9bb2b0a05242";
    case LogEventKind::reportSaved:
      return "0279e7a67b21490e84699b26ee00c8ca";
    case LogEventKind::reportRefused:
      return "c0a20e6491c345af9e9052278c6e0120";
    case LogEventKind::reportLost:
      return "f87ebc867a9f4568b156e10c37dae7c2";
    case LogEventKind::slowLaunch:
      return "f94cb4168fd84ad7a9b31c934cd3e7a4";
    case LogEventKind::activationLost:
      return "dc7f6381f31f44cebe6da73d9c79a400";
    case LogEventKind::preferenceIgnored:
      return "aaaf67f91d09475dbe59c9fc9cc3d73a";
    case LogEventKind::linesLost:
      return "28dc9987d70e43deb40c69867a6c0536";
    case LogEventKind::none:
      break;
  }
  return {};
}

bool isLoss(LogEventKind kind) {
  return kind == LogEventKind::reportLost || kind == LogEventKind::activationLost ||
         kind == LogEventKind::linesLost;
}

}  // namespace quorveld::linux_platform
