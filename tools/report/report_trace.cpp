#include "tools/report/report_trace.h"

#include <cmath>
#include <optional>
#include <utility>

#include "tools/base/table.h"

namespace quorvelctl {
namespace {

/// Thread names have 15 bytes, and states name a kernel function: what is longer is no such text.
constexpr size_t kMaxTextBytes = 200;

/// Times beyond a million days are nonsense, and would spoil the arithmetic.
constexpr double kMaxTimeUs = 1e17;

std::optional<TraceEvent::Kind> kindOf(const std::string& category) {
  if (category == "cpu") return TraceEvent::Kind::cpu;
  if (category == "state") return TraceEvent::Kind::state;
  if (category == "hang") return TraceEvent::Kind::hang;
  if (category == "wakeup") return TraceEvent::Kind::wakeup;
  if (category == "signpost") return TraceEvent::Kind::signpost;
  return std::nullopt;
}

}  // namespace

uint32_t TraceReader::textIndex(const std::string& text) {
  const auto [known, isNew] = textIndexes_.try_emplace(text, static_cast<uint32_t>(trace_.texts.size()));
  if (isNew) trace_.texts.push_back(text);
  return known->second;
}

void TraceReader::take(const Json& event) {
  const std::string phase = textMember(event, "ph");
  // Of each thread the look at it; samples of the time before have a place of their own.
  if (phase == "P" && textMember(event, "cat") != "sample")
    trace_.innermostFrames[integerMember(event, "tid")] = textMember(event, "sf");
  if (phase != "X" && phase != "i" && phase != "I") return;
  const auto kind = kindOf(textMember(event, "cat"));
  const double start = numberMember(event, "ts");
  const double duration = phase == "X" ? numberMember(event, "dur") : 0;
  if (!kind || std::abs(start) > kMaxTimeUs || duration < 0 || duration > kMaxTimeUs) return;
  trace_.events.push_back({*kind, textIndex(shortened(textMember(event, "name"), kMaxTextBytes)),
                           integerMember(event, "tid"), integerMember(member(event, "args"), "tid"), start,
                           duration});
}

Trace TraceReader::finish() {
  textIndexes_.clear();
  return std::exchange(trace_, {});
}

}  // namespace quorvelctl
