#pragma once

#include <string_view>

namespace quorvelctl {

// report_page.html with report_page.css and report_page.js, as the build put them in.
extern const std::string_view kReportPage;
extern const std::string_view kReportStyle;
extern const std::string_view kReportScript;

}  // namespace quorvelctl
