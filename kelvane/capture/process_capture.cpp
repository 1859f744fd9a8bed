#include "kelvane/capture/process_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <unordered_map>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/capture/lock_owner.h"
#include "kelvane/threads/memory_map.h"
#include "kelvane/threads/stack_copy.h"
#include "kelvane/threads/thread_facts.h"
#include "kelvane/threads/unwinder.h"

namespace kelvane {
namespace {

constexpr uint64_t kKernelThreadFlag = 0x00200000;  // PF_KTHREAD of proc(5)'s flags

/// One capture, step by step. Every method that returns bool answers whether the capture is still wanted.
class Capturer {
 public:
  Capturer(const CaptureTarget& target, const PublishCapture& publish)
      : target_(target), publish_(publish), deadline_(kWorkBudget) {}

  void run() {
    if (!openProcess() || !listThreads() || !readFacts() || !findLockOwner()) return;
    takeStacks();
    findPeer();
  }

 private:
  bool leaveOut(const char* what, std::string why) {
    return publish_([&](ProcessCapture& capture) { capture.omissions.push_back({what, std::move(why)}); });
  }

  std::optional<ProcStat> readStat() const {
    return parseStat(readFileAt(dir_.get(), "stat", kMaxProcFileBytes).text);
  }

  bool openProcess() {
    std::string path = "/proc/" + std::to_string(target_.pid);
    dir_ = UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int error = errno;
    auto stat = dir_ ? readStat() : std::nullopt;
    if (!stat) {
      leaveOut("process",
               dir_ || error == ENOENT ? "it has ended, or is hidden from this process" : errorText(error));
      return false;
    }
    firstStat_ = *stat;
    return publish_([&](ProcessCapture& capture) { capture.comm = stat->comm; });
  }

  bool listThreads() {
    tids_ = listNumbersAt(dir_.get(), "task", kMaxThreadsCounted);
    // What looks at the threads is none of the process's own.
    std::erase(tids_, gettid());
    size_t count = tids_.size();
    auto hung = std::find(tids_.begin(), tids_.end(), threadCalled(dir_.get(), target_.threadId));
    bool found = hung != tids_.end();
    if (!found) hung = std::find(tids_.begin(), tids_.end(), target_.pid);
    if (hung != tids_.end()) std::rotate(tids_.begin(), hung, hung + 1);
    hungThread_ = tids_.empty() ? target_.pid : tids_.front();
    if (!found) {
      leaveOut("hung thread", target_.threadId == 0
                                  ? "the header names none; the main thread stands in"
                                  : "the process has no thread " + std::to_string(target_.threadId) +
                                        "; the main thread stands in");
    }
    if (count > kMaxThreadsListed) {
      leaveOut("threads", std::to_string(kMaxThreadsListed) + " of " + std::to_string(count) + " are listed");
      tids_.resize(kMaxThreadsListed);
    }
    return publish_([&](ProcessCapture& capture) {
      capture.pid = target_.pid;
      capture.hungThread = hungThread_;
      capture.threadCount = count;
    });
  }

  bool readFacts() {
    std::vector<Omission> omissions;
    for (pid_t tid : tids_) {
      if (deadline_.passed()) return leaveOut("threads", "the time for the capture was over");
      auto facts = readThreadFacts(dir_.get(), tid, omissions);
      if (!facts) continue;
      if (tid == hungThread_) hungFacts_ = *facts;
      bool wanted = publish_([&](ProcessCapture& capture) {
        rows_[tid] = capture.threads.size();
        capture.threads.push_back({std::move(*facts), {}, {}});
      });
      if (!wanted) return false;
    }
    return publish_([&](ProcessCapture& capture) {
      capture.omissions.insert(capture.omissions.end(), omissions.begin(), omissions.end());
    });
  }

  bool findLockOwner() {
    pid_t owner = kelvane::lockOwner(dir_.get(), target_.pid, hungFacts_);
    return publish_([&](ProcessCapture& capture) { capture.lockOwner = owner; });
  }

  /// Last, since it looks at every process.
  void findPeer() {
    std::vector<Omission> omissions;
    auto peer = kelvane::findPeer(dir_.get(), target_.pid, hungFacts_, deadline_, omissions);
    publish_([&](ProcessCapture& capture) {
      capture.peer = std::move(peer);
      capture.omissions.insert(capture.omissions.end(), omissions.begin(), omissions.end());
    });
  }

  void takeStacks() {
    FileText status = readFileAt(dir_.get(), "status", kMaxProcFileBytes);
    if (parseStatusNumber(status.text, "Tgid") == static_cast<uint64_t>(getpid())) {
      leaveOut("user stacks", "the process is the one that writes this report");
      return;
    }
    if ((firstStat_.flags & kKernelThreadFlag) != 0) {
      leaveOut("user stacks", "a kernel thread has none");
      return;
    }
    MemoryMap map = readMemoryMap(dir_.get());
    if (map.modules.empty()) {
      leaveOut("user stacks", map.problem.empty() ? "the process has no memory any more" : map.problem);
      return;
    }
    if (!map.problem.empty()) leaveOut("modules", map.problem);
    modules_ = std::move(map.modules);
    bool wanted = publish_([&](ProcessCapture& capture) {
      for (const MappedModule& module : modules_) capture.modules.push_back({module.path, {}});
    });
    if (!wanted) return;
    unwinder_ = std::make_unique<Unwinder>(dir_.get(), target_.pid, modules_);
    copyAndUnwind();
    noteExec();
  }

  void copyAndUnwind() {
    std::span<const pid_t> rest = tids_;
    if (rest.size() > kMaxThreadsWithStack) {
      leaveOut("user stacks", "taken of " + std::to_string(kMaxThreadsWithStack) + " threads only");
      rest = rest.first(kMaxThreadsWithStack);
    }
    while (!rest.empty()) {
      if (deadline_.passed()) {
        leaveOut("user stacks", "the time for the capture was over");
        return;
      }
      auto outcomes = copyStacks(dir_.get(), target_.pid, rest, hungThread_, deadline_);
      if (outcomes.empty()) return;
      rest = rest.subspan(outcomes.size());
      for (const StackOutcome& outcome : outcomes) {
        if (!publishStack(outcome)) return;
        if (outcome.processRefused) {
          leaveOut("user stacks", outcome.failure);
          return;
        }
      }
    }
  }

  bool publishStack(const StackOutcome& outcome) {
    auto row = rows_.find(outcome.tid);
    if (row == rows_.end()) return true;
    if (!outcome.copy) {
      return publish_(
          [&](ProcessCapture& capture) { capture.threads[row->second].noStack = outcome.failure; });
    }
    UnwoundStack stack = unwinder_->unwind(*outcome.copy);
    StackSample sample{outcome.copy->atNs, outcome.copy->stoppedUs, {}, std::move(stack.cutOff)};
    std::vector<Frame> newFrames;
    for (uint64_t address : stack.addresses) {
      // Naming an address is by far the dearest step, and threads share most of theirs.
      auto [known, isNew] = frameOf_.try_emplace(address, static_cast<uint32_t>(frameOf_.size()));
      if (isNew) newFrames.push_back(unwinder_->describe(address, target_.symbolicate));
      sample.frames.push_back(known->second);
    }
    std::vector<std::pair<int32_t, std::string>> buildIds;
    for (const Frame& frame : newFrames) {
      if (frame.module >= 0) buildIds.emplace_back(frame.module, unwinder_->buildId(frame.module));
    }
    return publish_([&](ProcessCapture& capture) {
      std::move(newFrames.begin(), newFrames.end(), std::back_inserter(capture.frames));
      for (auto& [module, id] : buildIds)
        capture.modules[static_cast<size_t>(module)].buildId = std::move(id);
      capture.threads[row->second].stack = std::move(sample);
    });
  }

  /// Stacks after an exec don't belong to the modules that were read before it.
  void noteExec() {
    auto stat = readStat();
    if (!stat || stat->state == 'Z') {
      leaveOut("user stacks", "the process ended during the capture");
    } else if (stat->startStack != firstStat_.startStack) {
      leaveOut("user stacks",
               "the process executed another program during the capture: later ones may be wrong");
    }
  }

  const CaptureTarget target_;
  const PublishCapture& publish_;
  const Deadline deadline_;
  UniqueFd dir_;
  ProcStat firstStat_;
  pid_t hungThread_ = 0;
  ThreadFacts hungFacts_;
  std::vector<pid_t> tids_;                         // the hung thread's first
  std::unordered_map<pid_t, size_t> rows_;          // tid to index in ProcessCapture::threads
  std::vector<MappedModule> modules_;               // the same indices as ProcessCapture::modules
  std::unordered_map<uint64_t, uint32_t> frameOf_;  // address to index in ProcessCapture::frames
  std::unique_ptr<Unwinder> unwinder_;
};

}  // namespace

void captureProcess(const CaptureTarget& target, const PublishCapture& publish) {
  Capturer(target, publish).run();
}

}  // namespace kelvane
