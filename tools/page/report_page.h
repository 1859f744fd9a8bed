#pragma once

#include <string_view>

namespace quorvelctl {

// The files of these names in this folder, as the build put them in. The report page's style is every page's,
// and the memory page's that of all that have charts; each adds its own.
extern const std::string_view kPage;
extern const std::string_view kReportStyle;
extern const std::string_view kReportScript;
extern const std::string_view kMemoryStyle;
extern const std::string_view kLaunchesStyle;

}  // namespace quorvelctl
