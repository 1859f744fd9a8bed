#pragma once

#include <string_view>

namespace quorvelctl {

// The files of these names in this folder, as the build put them in. The report page's style is the memory
// page's too, which adds its own.
extern const std::string_view kReportPage;
extern const std::string_view kReportStyle;
extern const std::string_view kReportScript;
extern const std::string_view kMemoryPage;
extern const std::string_view kMemoryStyle;

}  // namespace quorvelctl
