#include "kelvane/capture/sampled_stacks.h"

#include <fcntl.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/capture/kernel_frames.h"
#include "kelvane/sampling/sampler.h"
#include "kelvane/threads/read_memory_map.h"

namespace kelvane {
namespace {

class LaunchSamples {
 public:
  LaunchSamples(const CaptureTarget& target, const PublishCapture& publish, const ParseStacks& parse)
      : target_(target), publish_(publish), parse_(parse), deadline_(kWorkBudget) {}

  void run() {
    auto kept = receiveSamples(target_.samplesSocket);
    if (!kept || kept->pid != target_.pid || kept->tid != target_.pid || kept->marks.empty()) return;
    ProcessCapture part;
    part.comm = kept->comm;
    part.hungThread = kept->tid;
    part.clockMarks = kept->marks;
    for (const NotedWait& wait : kept->waits) part.samples.push_back(sampleOf(wait));
    publish_(part);
    const auto leaveOut = [this](const char* what, std::string why) { this->leaveOut(what, std::move(why)); };
    CopiedStacks stacks{{}, copiedSamples(*kept, leaveOut)};
    withoutStacksBefore(kept->executedNs, stacks.samples);
    nameStacks(*kept, stacks);
  }

 private:
  void leaveOut(const char* what, std::string why) {
    ProcessCapture part;
    part.omissions.push_back({what, std::move(why)});
    publish_(part);
  }

  /// As if one had been taken when the thread is known to have waited.
  static SampledStack sampleOf(const NotedWait& wait) {
    SampledStack sample;
    sample.times.atNs = wait.since.atNs + 1;
    sample.times.cpuNs = wait.since.cpuNs;
    sample.times.switches = wait.since.switches;
    sample.times.preemptedNs = wait.since.preemptedNs;
    sample.times.leftCpu = true;
    sample.kernelFrames = {wait.function};
    return sample;
  }

  /// Those that nothing tells the user stacks of; their times and the kernel's functions are as good.
  void publishWithoutStacks(const std::vector<CopiedSample>& samples) const {
    ProcessCapture part;
    for (const CopiedSample& copied : samples)
      part.samples.push_back({copied.sample.times, {}, copied.kernelFrames});
    publish_(part);
  }

  void withoutStacksBefore(uint64_t executedNs, std::vector<CopiedSample>& samples) {
    const auto first = std::find_if(samples.begin(), samples.end(), [&](const CopiedSample& copied) {
      return copied.sample.times.atNs >= executedNs;
    });
    if (first == samples.begin()) return;
    const std::vector<CopiedSample> before(std::make_move_iterator(samples.begin()),
                                           std::make_move_iterator(first));
    samples.erase(samples.begin(), first);
    publishWithoutStacks(before);
    leaveOut("user stacks of samples",
             std::to_string(before.size()) + " are of a program that the process executed before");
  }

  void nameStacks(const KeptSamples& kept, const CopiedStacks& stacks) {
    const UniqueFd dir(
        open(("/proc/" + std::to_string(kept.pid)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // The map first: what is the same after it was the same before.
    const MemoryMap map = isSame(dir.get(), kept).empty() ? readMemoryMap(dir.get()) : MemoryMap{};
    std::string why = isSame(dir.get(), kept);
    if (why.empty() && map.modules.empty())
      why = map.problem.empty() ? "it has no memory any more" : map.problem;
    if (why.empty()) return parse_(0, {kept.pid, dir.get(), map.modules, stacks}, deadline_);
    publishWithoutStacks(stacks.samples);
    if (!stacks.samples.empty()) leaveOut("user stacks of samples", why);
  }

  /// Why the samples are not of what the process executes now; empty: they are.
  static std::string isSame(int dir, const KeptSamples& kept) {
    const auto stat = dir < 0 ? std::nullopt : parseStat(readFileAt(dir, "stat", kMaxProcFileBytes).text);
    if (!stat || stat->startTicks != kept.startTicks || stat->startStack == 0)
      return "the process has ended, and with it what names what it was in";
    return stat->startStack == kept.startStack ? "" : "the process has executed another program since";
  }

  const CaptureTarget& target_;
  const PublishCapture& publish_;
  const ParseStacks& parse_;
  const Deadline deadline_;
};

}  // namespace

std::vector<CopiedSample> copiedSamples(
    KeptSamples& kept, const std::function<void(const char* what, std::string why)>& leaveOut) {
  std::vector<std::vector<uint64_t>> chains;
  chains.reserve(kept.samples.size());
  // Where in the kernel it gave way to others is chance.
  for (const ThreadSample& sample : kept.samples)
    chains.push_back(sample.times.wasPreempted ? std::vector<uint64_t>() : sample.kernelAddresses);
  int error = 0;
  auto frames = kernelFrames(chains, error);
  if (error != 0) leaveOut("kernel stacks of samples", errorText(error));
  std::vector<CopiedSample> samples;
  samples.reserve(frames.size());
  for (size_t i = 0; i < frames.size(); i++)
    samples.push_back({std::move(kept.samples[i]), std::move(frames[i])});
  return samples;
}

void lookAtLaunchSamples(const CaptureTarget& target, const PublishCapture& publish,
                         const ParseStacks& parse) {
  LaunchSamples(target, publish, parse).run();
}

}  // namespace kelvane
