#include "hangs/trace_capture.h"

#include <array>
#include <cstring>

#include "base/log.h"
#include "base/text.h"
#include "platform/platform.h"

namespace quorveld {

void TraceCapture::loadKelvaneLibrary() {
  platform::TraceLibraryLoader& loader = platform::current().traceLibraries;
  const std::string path = KELVANE_LIBRARY_PATH + std::string(loader.suffix());
  std::string reason;
  library_ = loader.open(path, reason);
  if (!library_) {
    quorvelLog().standard("%s is not present.", path.substr(path.find_last_of('/') + 1).c_str());
    // It may be there after all: no library, or one that lacks another.
    quorvelLog().standard("Trace library not loaded: %s", reason.c_str());
    return;
  }
  dump_ = reinterpret_cast<kelvane_dump_function>(library_->symbol(KELVANE_ENTRY_POINT));
  if (!dump_) return;
  sample_ = reinterpret_cast<kelvane_sample_function>(library_->symbol(KELVANE_SAMPLE_ENTRY_POINT));
  finding_ = reinterpret_cast<kelvane_finding_function>(library_->symbol(KELVANE_FINDING_ENTRY_POINT));
  launch_ = reinterpret_cast<kelvane_launch_function>(library_->symbol(KELVANE_LAUNCH_ENTRY_POINT));
  reasonStringKey_ = optionKey(KELVANE_KEY_REASON_STRING);
  noSymbolicateKey_ = optionKey(KELVANE_KEY_NO_SYMBOLICATE);
  minTimestampKey_ = optionKey(KELVANE_KEY_MIN_TIMESTAMP);
  maxTimestampKey_ = optionKey(KELVANE_KEY_MAX_TIMESTAMP);
}

/// The export holds the address of the key's text. A library without one gets the export's own name as the
/// key: it can then make nothing of that option, which beats reading through a null pointer here.
const char* TraceCapture::optionKey(const char* exportName) {
  const auto* key = static_cast<const char* const*>(library_->symbol(exportName));
  return key && *key ? *key : exportName;
}

bool TraceCapture::isKelvaneAvailable() {
  std::call_once(loaded_, [this] { loadKelvaneLibrary(); });
  return dump_ != nullptr;
}

bool TraceCapture::dumpKelvaneToFile(int fd, uint64_t startTicks, uint64_t endTicks,
                                     const std::string& reason) {
  if (!isKelvaneAvailable()) {
    quorvelLog().standard("Kelvane dump symbol is missing!");
    return false;
  }
  // Names cost the capture far more than addresses do; whoever reads the report can look them up by build-id.
  const std::array<kelvane_option, 4> options = {{
      {.key = noSymbolicateKey_, .type = KELVANE_BOOL, .value = {.boolean = true}},
      {.key = reasonStringKey_, .type = KELVANE_STRING, .value = {.string = reason.c_str()}},
      {.key = minTimestampKey_, .type = KELVANE_UINT64, .value = {.uint64 = startTicks}},
      {.key = maxTimestampKey_, .type = KELVANE_UINT64, .value = {.uint64 = endTicks}},
  }};
  const kelvane_options all = {.count = options.size(), .options = options.data()};
  return dump_(fd, &all);
}

void TraceCapture::nameLaunch(int32_t pid, uint64_t connectedTicks) {
  const kelvane_launch launch{.pid = pid, .connected_ticks = connectedTicks};
  if (isKelvaneAvailable() && launch_) launch_(&launch);
}

ReportFinding TraceCapture::lastFinding() const {
  kelvane_finding finding{};
  if (finding_) finding_(&finding);
  const auto text = [](const auto& field) { return toUtf8({field, strnlen(field, sizeof field)}); };
  return {text(finding.cause), text(finding.culprit), text(finding.signature)};
}

void TraceCapture::samplePending(const std::vector<kelvane_pending>& pending) {
  if (pending.empty() && !sample_) return;
  if (!isKelvaneAvailable() || !sample_) return;
  const char* why = sample_(pending.data(), pending.size());
  if (why) quorvelLog().info("Threads of pending operations are not sampled: %s", why);
}

}  // namespace quorveld
