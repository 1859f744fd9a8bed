#include "tools/report/report_frame.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace quorvelctl {
namespace {

/// Of the kernel and the user; beyond what a report has.
constexpr size_t kMaxSteps = 512;

}  // namespace

ReportFrame reportFrame(const Json& frame) {
  return {textMember(frame, "name"), textMember(frame, "module"), textMember(frame, "build_id"),
          std::strtoull(textMember(frame, "offset").c_str(), nullptr, 16)};
}

std::string ReportFrame::place() const {
  if (module.empty()) return {};
  char digits[24];
  std::snprintf(digits, sizeof digits, "+0x%" PRIx64, offset);
  return module.substr(module.rfind('/') + 1) + digits;
}

std::string kernelFrame(const Json& frames, const std::string& id) {
  const Json& frame = member(frames, id.c_str());
  return textMember(frame, "category") == "kernel" ? textMember(frame, "name") : std::string();
}

std::vector<ReportFrame> userStack(const Json& frames, std::string id, size_t most) {
  std::vector<ReportFrame> stack;
  for (size_t steps = 0; !id.empty() && steps < kMaxSteps && stack.size() < most; ++steps) {
    const Json& frame = member(frames, id.c_str());
    if (frame.is_object() && textMember(frame, "category") != "kernel") stack.push_back(reportFrame(frame));
    id = textMember(frame, "parent");
  }
  return stack;
}

}  // namespace quorvelctl
