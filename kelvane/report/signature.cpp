#include "kelvane/report/signature.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <optional>
#include <vector>

#include "kelvane/verdict/display_names.h"

namespace kelvane {
namespace {

/// Of each thread, the innermost: further out all of a program's stacks are the same.
constexpr size_t kFrames = 5;

/// What is the same wherever the program is loaded; a name of the file alone is not that of a build.
std::string placeOf(const ProcessCapture& process, const Frame& frame, bool isExact) {
  if (!frame.name.empty()) return frame.name;
  const Module* module = moduleOf(process, frame);
  if (!module) return "?";
  const std::string build = module->buildId.empty() ? fileName(module->path) : module->buildId;
  return isExact ? build + "+" + hexText(frame.offset) : build;
}

/// One part for each frame; none without a stack.
std::vector<std::string> placesOf(const ProcessCapture& process, pid_t tid) {
  auto thread = std::find_if(process.threads.begin(), process.threads.end(),
                             [&](const ThreadCapture& each) { return each.facts.tid == tid; });
  if (thread == process.threads.end()) return {};
  const std::optional<StackSample>& stack = thread->stack;
  if (!stack || stack->frames.empty()) return {};
  const Frame* innermost = &process.frames[stack->frames.front()];
  const std::optional<SystemCall>& call = thread->facts.syscall;
  const bool inCall = call && call->number >= 0;
  std::vector<std::string> places;
  for (const Frame* frame : ownFrames(process, *thread)) {
    if (places.size() == kFrames) break;
    // Where a thread that runs happens to be differs from look to look; where it made its calls does not.
    places.push_back(placeOf(process, *frame, frame != innermost || inCall));
  }
  return places;
}

std::string hashText(const std::vector<std::string>& parts) {
  uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  auto add = [&](unsigned char byte) { hash = (hash ^ byte) * 0x100000001b3; };
  for (const std::string& part : parts) {
    for (char byte : part) add(static_cast<unsigned char>(byte));
    add(0);
  }
  char digits[17];
  snprintf(digits, sizeof digits, "%016" PRIx64, hash);
  return digits;
}

}  // namespace

std::string signatureOf(const Report& report) {
  if (!report.verdict) return {};
  const ProcessCapture& process = report.process;
  std::vector<std::string> parts = {causeName(report.verdict->cause)};
  auto addThread = [&](pid_t tid, const std::vector<std::string>& otherwise) {
    const std::vector<std::string> places = placesOf(process, tid);
    const auto& known = places.empty() ? otherwise : places;
    parts.insert(parts.end(), known.begin(), known.end());
    parts.emplace_back();
  };
  if (report.verdict->chain) {
    for (const ChainLink& link : report.verdict->chain->chain.links)
      addThread(link.party.facts.tid, {link.party.process});
  } else {
    addThread(process.hungThread, {fileName(report.request.processPath), report.request.serviceName});
  }
  return hashText(parts);
}

}  // namespace kelvane
