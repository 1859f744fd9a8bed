#include "kelvane/capture/process_capture.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/capture/sampled_stacks.h"
#include "kelvane/capture/surroundings.h"
#include "kelvane/capture/wait_look.h"
#include "kelvane/sampling/sampler.h"
#include "kelvane/threads/read_memory_map.h"
#include "kelvane/threads/stack_copy.h"
#include "kelvane/threads/thread_facts.h"
#include "kelvane/waits/wait_chain.h"

namespace kelvane {
namespace {

constexpr uint64_t kKernelThreadFlag = 0x00200000;  // PF_KTHREAD of proc(5)'s flags

/// One look, step by step, what matters most first: each step may be the last.
class Look {
 public:
  Look(const CaptureTarget& target, const PublishCapture& publish, const ParseStacks& parse)
      : target_(target), publish_(publish), parse_(parse), deadline_(kWorkBudget) {}

  void run() {
    if (!openProcess()) return;
    listThreads();
    readFacts();
    takeStacks();
    settle();
    // Late, since it reads memory that the thread waits at, which lies behind a dead server sooner than any
    // other.
    takeOtherStacks(lookAtWaits({target_.pid, firstStat_.comm, dir_.get(), facts_}, deadline_, publish_));
  }

 private:
  void leaveOut(const char* what, std::string why) {
    ProcessCapture part;
    part.omissions.push_back({what, std::move(why)});
    publish_(part);
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
    return true;
  }

  void listThreads() {
    tids_ = listNumbersAt(dir_.get(), "task", kMaxThreadsCounted);
    size_t count = tids_.size();
    auto hung = std::find(tids_.begin(), tids_.end(), threadCalled(dir_.get(), target_.threadId));
    bool found = hung != tids_.end();
    if (!found) hung = std::find(tids_.begin(), tids_.end(), target_.pid);
    if (hung != tids_.end()) std::rotate(tids_.begin(), hung, hung + 1);
    hungThread_ = tids_.empty() ? target_.pid : tids_.front();
    if (!found) {
      leaveOut("hung thread", target_.threadId == 0
                                  ? "the header names none; the main thread stands in"
                                  : "no thread " + std::to_string(target_.threadId) +
                                        " of the process was found; the main thread stands in");
    }
    if (count > kMaxThreadsListed) {
      leaveOut("threads", std::to_string(kMaxThreadsListed) + " of " + std::to_string(count) + " are listed");
      tids_.resize(kMaxThreadsListed);
    }
    ProcessCapture part;
    part.comm = firstStat_.comm;
    part.hungThread = hungThread_;
    part.threadCount = count;
    publish_(part);
  }

  void readFacts() {
    ProcessCapture last;
    for (pid_t tid : tids_) {
      if (deadline_.passed()) {
        last.omissions.push_back({"threads", "the time for the capture was over"});
        break;
      }
      auto facts = readThreadFacts(dir_.get(), tid, last.omissions);
      if (facts && tid == hungThread_ && facts->state == 'R') lookForSleep(*facts, last.omissions);
      if (!facts) continue;
      ProcessCapture part;
      part.threads.push_back({*facts, {}, {}});
      publish_(part);
      facts_.push_back(std::move(*facts));
    }
    publish_(last);
  }

  /// Whoever sleeps again and again, each time for a moment, is seen asleep if that is what it mostly does.
  void lookForSleep(ThreadFacts& facts, std::vector<Omission>& omissions) const {
    const uint64_t begunNs = monotonicNs();
    const uint64_t ranBeforeNs = ranNs(facts.tid);
    for (int more = 0; ranBeforeNs > 0 && more < kMoreLooks; more++) {
      std::this_thread::sleep_for(kBetweenLooks);
      auto again = readThreadFacts(dir_.get(), facts.tid, omissions);
      if (!again) return;
      if (again->state == 'R') continue;
      if ((ranNs(facts.tid) - ranBeforeNs) * 2 < monotonicNs() - begunNs) facts = std::move(*again);
      return;
    }
  }

  uint64_t ranNs(pid_t tid) const {
    const FileText text = readFileAt(dir_.get(), taskPath(tid, "schedstat").c_str(), kMaxProcFileBytes);
    return parseSchedstat(text.text).value_or(ScheduleFigures{}).ranNs;
  }

  void takeStacks() {
    if ((firstStat_.flags & kKernelThreadFlag) != 0) {
      leaveOut("user stacks", "a kernel thread has none");
      return;
    }
    const MemoryMap map = readMemoryMap(dir_.get());
    if (map.modules.empty()) {
      leaveOut("user stacks", map.problem.empty() ? "the process has no memory any more" : map.problem);
      return;
    }
    if (!map.problem.empty()) leaveOut("modules", map.problem);
    CopiedStacks stacks{copyAll(), {}};
    noteExec();
    takeSamples(stacks);
    if (!stacks.looks.empty() || !stacks.samples.empty())
      parse_(0, {target_.pid, dir_.get(), map.modules, stacks}, deadline_);
  }

  /// Those of the very thread, in the program that it executes now.
  void takeSamples(CopiedStacks& stacks) {
    auto kept = receiveSamples(target_.samplesSocket);
    if (!kept || kept->pid != target_.pid || kept->tid != hungThread_ ||
        kept->startStack != firstStat_.startStack)
      return;
    std::erase_if(kept->samples, [&](const auto& one) { return one.times.atNs < kept->executedNs; });
    ProcessCapture part;
    part.clockMarks = std::move(kept->marks);
    publish_(part);
    // What the kernel copies doesn't say how the machine signs addresses.
    const uint64_t signatureBits =
        stacks.looks.empty() ? 0 : stacks.looks.front().copy.registers.signatureBits;
    for (ThreadSample& sample : kept->samples) sample.stack.registers.signatureBits = signatureBits;
    stacks.samples =
        copiedSamples(*kept, [this](const char* what, std::string why) { leaveOut(what, std::move(why)); });
  }

  std::vector<CopiedStack> copyAll() {
    std::vector<CopiedStack> stacks;
    std::span<const pid_t> rest = tids_;
    if (rest.size() > kMaxThreadsWithStack) {
      leaveOut("user stacks", "taken of " + std::to_string(kMaxThreadsWithStack) + " threads only");
      rest = rest.first(kMaxThreadsWithStack);
    }
    while (!rest.empty()) {
      if (deadline_.passed()) {
        leaveOut("user stacks", "the time for the capture was over");
        break;
      }
      auto outcomes = copyStacks(dir_.get(), target_.pid, rest, hungThread_, deadline_);
      if (outcomes.empty()) break;
      rest = rest.subspan(outcomes.size());
      for (StackOutcome& outcome : outcomes) {
        if (outcome.copy) {
          stacks.push_back({outcome.tid, std::move(*outcome.copy)});
          continue;
        }
        ProcessCapture part;
        part.threads.emplace_back().facts.tid = outcome.tid;
        part.threads.back().noStack = outcome.failure;
        if (outcome.processRefused) part.omissions.push_back({"user stacks", outcome.failure});
        publish_(part);
        if (outcome.processRefused) return stacks;
      }
    }
    return stacks;
  }

  /// Those of the threads of other processes that the waits lead to, the last one's first.
  void takeOtherStacks(const LookedWaits& waits) {
    const WaitChain chain = chainFrom(waits.graph, hungThread_);
    size_t number = 0;
    for (auto link = chain.links.rbegin(); link != chain.links.rend(); ++link) {
      if (link->party.pid == target_.pid) continue;
      if (deadline_.passed() || number == kMaxOtherStacks)
        return leaveOut("stacks of other processes", "not all on the way were taken");
      const auto dir = waits.dirs.find(link->party.pid);
      if (dir != waits.dirs.end()) takeOtherStack(++number, link->party, dir->second.get());
    }
  }

  void takeOtherStack(size_t number, const WaitParty& party, int dir) {
    ProcessCapture part;
    OtherThread& other = part.others.emplace_back(OtherThread{party.pid, party.process, {}});
    other.thread.facts = party.facts;
    const MemoryMap map = readMemoryMap(dir);
    CopiedStacks stacks;
    if (map.modules.empty()) {
      other.thread.noStack = "it has none, or it may not be looked at";
    } else if (!isWhereItWas(dir, party.facts)) {
      other.thread.noStack = "it has moved on meanwhile";
    } else {
      auto outcomes = copyStacks(dir, party.pid, std::span(&party.facts.tid, 1), 0, deadline_);
      for (StackOutcome& outcome : outcomes) {
        other.thread.noStack = outcome.failure;
        if (outcome.copy) stacks.looks.push_back({outcome.tid, std::move(*outcome.copy)});
      }
    }
    publish_(part);
    if (!stacks.looks.empty()) parse_(number, {party.pid, dir, map.modules, stacks}, deadline_);
  }

  /// Whether its stack would be of what it did when it was looked at.
  static bool isWhereItWas(int dir, const ThreadFacts& before) {
    std::vector<Omission> known;
    const auto now = readThreadFacts(dir, before.tid, known);
    return now && now->state == before.state && isStillIn(before.syscall, now->syscall);
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

  /// Each copy of a stack wakes its thread, which then goes back into the call that it was in.
  void settle() const {
    const Deadline soon(kSettleTime);
    for (const ThreadFacts& facts : facts_) {
      while (facts.state == 'S' && readThreadState(dir_.get(), facts.tid) == 'R' && !soon.passed() &&
             !deadline_.passed())
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  }

  const CaptureTarget target_;
  const PublishCapture& publish_;
  const ParseStacks& parse_;
  const Deadline deadline_;
  UniqueFd dir_;
  ProcStat firstStat_;
  pid_t hungThread_ = 0;
  std::vector<pid_t> tids_;         // the hung thread's first
  std::vector<ThreadFacts> facts_;  // of those that were still there
};

}  // namespace

void lookAtProcess(const CaptureTarget& target, const PublishCapture& publish, const ParseStacks& parse) {
  Look(target, publish, parse).run();
}

}  // namespace kelvane
