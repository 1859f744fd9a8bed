#include "kelvane/capture/kernel_frames.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <string_view>
#include <unordered_map>

#include "kelvane/base/proc_text.h"
#include "kelvane/kernel/kernel_look.h"

namespace kelvane {
namespace {

/// "futex_wait", or "fuse_readdir [fuse]", without the place in the function.
std::string functionIn(const std::string& frame) {
  const size_t place = frame.find("+0x");
  if (place == std::string::npos) return frame;
  const size_t module = frame.find(' ', place);
  return frame.substr(0, place) + (module == std::string::npos ? "" : frame.substr(module));
}

/// Whether it is what a thread goes through to leave the CPU, whatever it waits for.
bool isOfScheduler(const std::string& function) {
  constexpr std::array<std::string_view, 4> kBegins = {"__schedule", "schedule", "io_schedule",
                                                       "__perf_event_task_sched"};
  return std::any_of(kBegins.begin(), kBegins.end(),
                     [&](std::string_view begin) { return function.starts_with(begin); });
}

/// Of each address its function; empty, and why, if the kernel doesn't say.
std::unordered_map<uint64_t, std::string> functionsOf(const std::set<uint64_t>& addresses, int& error) {
  const std::vector<uint64_t> asked(addresses.begin(), addresses.end());
  const FileText text = kernelFunctionsAt(asked);
  const std::vector<std::string> frames = parseKernelStack(text.text, asked.size() + 1);  // so that more show
  std::unordered_map<uint64_t, std::string> functions;
  const bool isWhole = frames.size() == asked.size();
  error = text.error != 0 || isWhole ? text.error : EBADMSG;
  for (size_t i = 0; i < frames.size() && isWhole; i++) functions.emplace(asked[i], functionIn(frames[i]));
  return functions;
}

}  // namespace

std::vector<std::vector<std::string>> kernelFrames(std::span<const std::vector<uint64_t>> chains,
                                                   int& error) {
  error = 0;
  std::vector<std::vector<std::string>> all(chains.size());
  std::set<uint64_t> addresses;
  for (const auto& chain : chains) addresses.insert(chain.begin(), chain.end());
  if (addresses.empty()) return all;
  const auto functions = functionsOf(addresses, error);
  if (functions.empty()) return all;
  for (size_t i = 0; i < chains.size(); i++) {
    for (const uint64_t address : chains[i]) {
      const std::string& function = functions.at(address);
      if (!all[i].empty() || !isOfScheduler(function)) all[i].push_back(function);
    }
  }
  return all;
}

}  // namespace kelvane
