#include "kelvane/verdict/judge.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "kelvane/verdict/findings.h"
#include "kelvane/verdict/verdict_sentence.h"

namespace kelvane {
namespace {

/// The recorder judges if it knows at least this share of the hang. What is less may be any part of it, and
/// one look at its end tells as much.
constexpr double kLeastShareKnown = 0.1;

/// What happens to a thread whatever it was doing (it was stopped, say) is the cause if it lasted for this
/// share of what is known of the hang.
constexpr double kDecisiveShare = 0.5;

/// Waiting for pages of files counts as a lack of memory if in the last ten seconds some task waited for
/// memory for this share of the time; a machine with memory to spare shows below 1 %.
constexpr double kMemoryIsShortPercent = 20;

/// Whether the kernel functions that a thread sleeps in belong to a block device or a file system on one.
bool looksLikeDisk(const ThreadFacts& facts) {
  constexpr std::array<std::string_view, 8> kSigns = {"io_schedule", "folio_wait", "blk_",  "submit_bio",
                                                      "jbd2_",       "iomap_dio",  "ext4_", "xfs_"};
  auto shows = [&](std::string_view name) {
    return std::any_of(kSigns.begin(), kSigns.end(),
                       [&](std::string_view sign) { return name.find(sign) != std::string_view::npos; });
  };
  return shows(facts.waitChannel) || std::any_of(facts.kernelStack.begin(), facts.kernelStack.end(), shows);
}

Cause causeOfSleep(const ProcessCapture& process, bool stillAsleep) {
  if (stillAsleep && process.lockOwner != 0) return Cause::lock;
  if (stillAsleep && process.peer) return Cause::peer;
  return Cause::sleeping;
}

Cause causeOfUninterruptibleSleep(const Evidence& evidence, const Findings& findings) {
  auto asleepNs = static_cast<double>(findings.in(ThreadState::uninterruptible));
  const auto& memory = evidence.pressure.memory;
  if (findings.pageIns > 0 && memory && memory->some10 >= kMemoryIsShortPercent) return Cause::memory;
  if (static_cast<double>(findings.diskWaitNs) >= kDecisiveShare * asleepNs) return Cause::disk;
  if (findings.stillAsleep && looksLikeDisk(findings.thread->facts)) return Cause::disk;
  return Cause::unknown;
}

Cause causeByRecording(const Evidence& evidence, const Findings& findings) {
  auto isDecisive = [&](uint64_t ns) {
    return static_cast<double>(ns) >= kDecisiveShare * static_cast<double>(findings.knownNs);
  };
  if (isDecisive(findings.suspendNs)) return Cause::suspended;
  if (isDecisive(findings.in(ThreadState::stopped))) return Cause::stopped;
  if (isDecisive(findings.reclaimNs)) return Cause::memory;
  auto last = findings.spent.begin() + static_cast<size_t>(ThreadState::unknown);
  auto most =
      static_cast<ThreadState>(std::max_element(findings.spent.begin(), last) - findings.spent.begin());
  switch (most) {
    case ThreadState::running:
      return Cause::ownCpu;
    case ThreadState::runnable:
      return Cause::starved;
    case ThreadState::uninterruptible:
      return causeOfUninterruptibleSleep(evidence, findings);
    case ThreadState::sleeping:
      return causeOfSleep(evidence.process, findings.stillAsleep);
    case ThreadState::stopped:
      return Cause::stopped;
    case ThreadState::unknown:
      break;
  }
  return Cause::unknown;
}

/// One look tells what the thread did at that moment. The CPU time of its whole life bounds what it can have
/// had of the hang.
Cause causeByOneLook(const Evidence& evidence, const ThreadFacts& facts) {
  uint64_t hangMs = (evidence.toNs - evidence.fromNs) / 1'000'000;
  switch (facts.state) {
    case 'R':
      return facts.userMs + facts.systemMs < hangMs / 2 ? Cause::starved : Cause::ownCpu;
    case 'D':
      return looksLikeDisk(facts) ? Cause::disk : Cause::unknown;
    case 'T':
    case 't':
      return Cause::stopped;
    case 'S':
      return causeOfSleep(evidence.process, true);
    default:
      return Cause::unknown;
  }
}

std::optional<NamedThread> namedOwner(const ProcessCapture& process) {
  for (const ThreadCapture& thread : process.threads) {
    if (thread.facts.tid == process.lockOwner)
      return NamedThread{thread.facts.tid, thread.facts.comm, process.pid, process.comm};
  }
  // More threads than are listed.
  return NamedThread{process.lockOwner, {}, process.pid, process.comm};
}

}  // namespace

Verdict judge(const Evidence& evidence) {
  const Recording& recording = evidence.recording;
  Findings findings = findingsOf(evidence);
  Verdict verdict;
  verdict.windowNs = evidence.toNs - evidence.fromNs;
  verdict.coveredNs = sharedNs(evidence.fromNs, evidence.toNs, recording.coveredFromNs, recording.toNs);
  verdict.eventsLost = recording.lostEvents;
  verdict.pressure = evidence.pressure;
  bool isRecorded = verdict.coveredNs > 0;
  if (isRecorded) {
    if (findings.thread) verdict.spent = findings.spent;
    verdict.waits = findings.waits;
    verdict.busiest = findings.busiest;
    verdict.disk = findings.disk;
  }
  auto windowNs = static_cast<double>(verdict.windowNs);
  verdict.fromRecorder = isRecorded && static_cast<double>(findings.knownNs) >= kLeastShareKnown * windowNs;
  if (verdict.fromRecorder) {
    verdict.cause = causeByRecording(evidence, findings);
  } else if (findings.thread) {
    verdict.cause = causeByOneLook(evidence, findings.thread->facts);
  }
  if (verdict.cause == Cause::lock) verdict.lockOwner = namedOwner(evidence.process);
  if (verdict.cause == Cause::peer) verdict.peer = evidence.process.peer;
  verdict.sentence = verdictSentence(evidence, findings, verdict);
  return verdict;
}

}  // namespace kelvane
