#include "kelvane/verdict/judge.h"

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "kelvane/verdict/chain_verdict.h"
#include "kelvane/verdict/findings.h"
#include "kelvane/verdict/shares.h"
#include "kelvane/verdict/verdict_sentence.h"
#include "kelvane/verdict/wakers.h"

namespace kelvane {
namespace {

/// The recorder judges if it knows at least this share of the hang. What is less may be any part of it, and
/// one look at its end tells as much.
constexpr double kLeastShareKnown = 0.1;

/// What happens to a thread whatever it was doing (it was stopped, say) is the cause if it lasted for this
/// share of what is known of the hang.
constexpr double kDecisiveShare = 0.5;

/// A state other than the one that is judged first is told of if it makes up this share of what is known.
constexpr double kPhaseShare = 0.2;

/// Two states lasted about as long if the shorter one made up this share of the longer.
constexpr double kAboutAsLong = 0.8;

/// What the kernel computes for a page that has to be read back in while memory is short, room made for it
/// included: 20 µs on a virtual machine.
constexpr uint64_t kPageWorkNs = 15'000;

/// What the chain says that starts with such a sleep.
std::optional<Cause> causeOfChainIn(ThreadState state, const Findings& findings) {
  if (!findings.chain || findings.chain->state != state) return std::nullopt;
  return causeOfChain(*findings.chain);
}

/// Where no chain does: a server of a file system is waited for in either kind of sleep.
Cause causeOfSleepAtLook(KernelWait wait) {
  return wait == KernelWait::server ? Cause::server : Cause::sleeping;
}

std::optional<Cause> causeOfKernelWait(KernelWait wait) {
  switch (wait) {
    case KernelWait::disk:
    case KernelWait::page:
    case KernelWait::fileSystem:
      return Cause::disk;
    case KernelWait::swap:
      return Cause::swapping;
    case KernelWait::memory:
      return Cause::memory;
    case KernelWait::server:
      return Cause::server;
    case KernelWait::child:
      return Cause::child;
    case KernelWait::frozen:
      return Cause::frozen;
    case KernelWait::quota:
      return Cause::throttled;
    case KernelWait::lock:
    case KernelWait::unknown:
      break;
  }
  return std::nullopt;
}

/// In its whole life the group may not have been held back for as long as the thread was: then its limit is
/// no reason. With it, what the look saw decides, or that the CPU had nothing else to do.
Cause causeOfRunnable(const Evidence& evidence, const Findings& findings) {
  const uint64_t readyNs = findings.in(ThreadState::runnable);
  const auto& quota = evidence.after.limits.quota;
  if (!quota || !makesUp(quota->throttledNs, kDecisiveShare, readyNs)) return Cause::starved;
  const bool seen = findings.stillAwake && findings.throttledAtLook;
  return seen || makesUp(findings.idleRunnableNs, kDecisiveShare, readyNs) ? Cause::throttled
                                                                           : Cause::starved;
}

Cause causeOfSleep(const Findings& findings) {
  const bool holds =
      makesUp(findings.sleeps.likeTheLookNs, kDecisiveShare, findings.in(ThreadState::sleeping));
  const auto seen = holds ? causeOfChainIn(ThreadState::sleeping, findings) : std::nullopt;
  return seen.value_or(holds ? causeOfSleepAtLook(findings.kernelWait) : Cause::sleeping);
}

Cause causeOfUninterruptibleSleep(const Evidence& evidence, const Findings& findings) {
  const uint64_t asleepNs = findings.in(ThreadState::uninterruptible);
  const bool isSeen = makesUp(findings.lastSleepNs, kDecisiveShare, asleepNs);
  const auto known = isSeen ? causeOfChainIn(ThreadState::uninterruptible, findings) : std::nullopt;
  if (known) return *known;
  const auto seen = isSeen ? causeOfKernelWait(findings.kernelWait) : std::nullopt;
  if (findings.bySamples) {
    const KernelWait sampled = findings.sampled.placeIn(ThreadState::uninterruptible).kernelWait;
    if (sampled == KernelWait::page && findings.memoryLimitHit) return Cause::memory;
    return seen.value_or(causeOfKernelWait(sampled).value_or(Cause::unknown));
  }
  if (seen && *seen != Cause::disk) return *seen;
  if (findings.pageIns > 0 && (isMemoryShort(evidence.pressure) || findings.memoryLimitHit))
    return Cause::memory;
  if (makesUp(findings.diskWaits.waitedNs, kDecisiveShare, asleepNs)) return Cause::disk;
  const bool isLimited = !evidence.after.limits.diskLimit.empty();
  if (isLimited && makesUp(findings.diskWaits.heldBackNs, kDecisiveShare, asleepNs)) return Cause::throttled;
  // A request from before the recording, or one that the device doesn't even take.
  return isSeen && findings.kernelWait == KernelWait::disk && !isLimited ? Cause::disk : Cause::unknown;
}

Cause causeOfState(ThreadState state, const Evidence& evidence, const Findings& findings) {
  const auto& recorded = evidence.recordedChain;
  if (recorded && recorded->state == state) return causeOfChain(*recorded);
  switch (state) {
    case ThreadState::running:
      return Cause::ownCpu;
    case ThreadState::runnable:
      return causeOfRunnable(evidence, findings);
    case ThreadState::uninterruptible:
      return causeOfUninterruptibleSleep(evidence, findings);
    case ThreadState::sleeping:
      return causeOfSleep(findings);
    case ThreadState::stopped:
      return Cause::stopped;
    case ThreadState::unknown:
      break;
  }
  return Cause::unknown;
}

/// What happened to the thread whatever it was doing.
std::optional<Cause> decisiveCause(const Evidence& evidence, const Findings& findings) {
  auto isDecisive = [&](uint64_t ns) { return makesUp(ns, kDecisiveShare, findings.knownNs); };
  if (isDecisive(findings.suspendNs)) return Cause::suspended;
  if (isDecisive(findings.in(ThreadState::stopped))) return Cause::stopped;
  if (isDecisive(findings.reclaimNs)) return Cause::memory;
  const bool isFrozen = findings.kernelWait == KernelWait::frozen || !evidence.after.limits.frozen.empty();
  if (findings.stillAsleep && isFrozen && isDecisive(findings.lastSleepNs)) return Cause::frozen;
  return std::nullopt;
}

/// Whether what a thread computed was the kernel's work, which had to fetch for it what it waited for: it was
/// about as long on the CPU as it waited, and there, as far as the look saw it, in the kernel most of all, or
/// the pages that were read for it account for it.
bool isWorkFor(const Phase& wait, const Phase& work, const Findings& findings) {
  const bool isPaging =
      wait.cause == Cause::memory && makesUp(findings.pageIns * kPageWorkNs, kHalf, work.ns);
  const bool isFetching =
      wait.cause == Cause::disk || wait.cause == Cause::memory || wait.cause == Cause::swapping;
  const bool isSeen = isFetching && findings.inKernelAtLook && makesUp(wait.ns, kAboutAsLong, work.ns);
  return work.cause == Cause::ownCpu && (isPaging || isSeen);
}

/// The states that made up much of the hang, each with its cause.
std::vector<Phase> phasesOf(const Evidence& evidence, const Findings& findings) {
  if (const auto cause = decisiveCause(evidence, findings))
    return {{*cause, ThreadState::unknown, findings.knownNs}};
  std::vector<Phase> phases;
  for (size_t i = 0; i < static_cast<size_t>(ThreadState::unknown); i++) {
    const auto state = static_cast<ThreadState>(i);
    if (!makesUp(findings.spent[i], kPhaseShare, findings.knownNs)) continue;
    phases.push_back({causeOfState(state, evidence, findings), state, findings.spent[i]});
  }
  std::sort(phases.begin(), phases.end(),
            [](const Phase& a, const Phase& b) { return std::tie(b.ns, a.state) < std::tie(a.ns, b.state); });
  if (phases.size() > 1 && isWorkFor(phases[1], phases[0], findings)) std::swap(phases[0], phases[1]);
  return phases;
}

/// A thread that is awake at the look has computed at most for the time that it has run in its life, and been
/// kept from it for as long as it has stood in a queue. Where either may be, the time of the look decides.
Cause causeOfAwake(const Evidence& evidence, const Findings& findings) {
  const uint64_t hangNs = evidence.toNs - evidence.fromNs;
  const auto& before = evidence.before.schedule;
  const auto& after = evidence.after.schedule;
  const auto& quota = evidence.after.limits.quota;
  if (quota && findings.throttledAtLook && makesUp(quota->throttledNs, kDecisiveShare, hangNs))
    return Cause::throttled;
  if (!after) {
    const ThreadFacts& facts = findings.thread->facts;
    const uint64_t ranNs = (facts.userMs + facts.systemMs) * 1'000'000;
    return makesUp(ranNs, kDecisiveShare, hangNs) ? Cause::ownCpu : Cause::unknown;
  }
  if (findings.faultedAtLook && findings.memoryLimitHit) return Cause::memory;
  // What the kernel computes to fetch pages is no computing of the thread's own.
  if (findings.faultedAtLook && findings.inKernelAtLook) return Cause::disk;
  const bool mayHaveRun = makesUp(after->ranNs, kDecisiveShare, hangNs);
  const bool mayHaveWaited = makesUp(after->waitedNs, kDecisiveShare, hangNs);
  if (mayHaveRun != mayHaveWaited) return mayHaveRun ? Cause::ownCpu : Cause::starved;
  const bool isSame = before && evidence.before.thread == evidence.after.thread;
  if (!mayHaveRun || !isSame) return Cause::unknown;
  return after->waitedNs - before->waitedNs > after->ranNs - before->ranNs ? Cause::starved : Cause::ownCpu;
}

/// One look tells what the thread did at that moment.
Cause causeByOneLook(const Evidence& evidence, const Findings& findings) {
  const ThreadFacts& facts = findings.thread->facts;
  const Cause inKernel = causeOfKernelWait(findings.kernelWait).value_or(Cause::unknown);
  const bool isFrozen = inKernel == Cause::frozen || !evidence.after.limits.frozen.empty();
  switch (facts.state) {
    case 'R':
      return causeOfAwake(evidence, findings);
    case 'D':
      if (isFrozen) return Cause::frozen;
      if (findings.kernelWait == KernelWait::page && findings.memoryLimitHit) return Cause::memory;
      return causeOfChainIn(ThreadState::uninterruptible, findings).value_or(inKernel);
    case 'T':
    case 't':
      return Cause::stopped;
    case 'S':
      if (isFrozen) return Cause::frozen;
      return causeOfChainIn(ThreadState::sleeping, findings)
          .value_or(causeOfSleepAtLook(findings.kernelWait));
    default:
      return Cause::unknown;
  }
}

/// Whether the chain is what one of the phases was put down to, or the whole.
bool isByChain(const Evidence& evidence, const Verdict& verdict, const ChainVerdict& chain) {
  const Cause cause = causeOfChain(chain);
  if (tellsTracer(chain)) return verdict.cause == cause;
  if (!verdict.hasTimes()) {
    // What stops the hung thread itself comes before what it waits for.
    const char state = chain.chain.links.front().party.facts.state;
    return verdict.cause == cause && (state == 'S' || state == 'D') && evidence.after.limits.frozen.empty();
  }
  return std::any_of(verdict.phases.begin(), verdict.phases.end(),
                     [&](const Phase& phase) { return phase.cause == cause && phase.state == chain.state; });
}

/// What a recording of too little of the hang tells of the thread is no part of what other evidence does.
void forgetFigures(Findings& findings) {
  findings.spent = {};
  findings.knownNs = findings.lastSleepNs = 0;
  findings.stillAwake = findings.stillAsleep = false;
  findings.sleeps = {};
  findings.waits.clear();
  findings.diskWaits = {};
  findings.diskUsers = findings.competitors = findings.sharers = {};
  findings.pageIns = findings.reclaimNs = findings.suspendNs = findings.idleRunnableNs = 0;
}

/// Whether the samples tell enough of the hang. What they don't know is always a wait: where that is the
/// most, what they do know would make a thread that waited one that computed.
bool tellBySamples(const SampledPhases& sampled, uint64_t windowNs) {
  const auto longest = std::max_element(sampled.spent.begin(), sampled.spent.end());
  const bool isMostlyUnknown =
      longest - sampled.spent.begin() == static_cast<std::ptrdiff_t>(ThreadState::unknown);
  return !isMostlyUnknown &&
         static_cast<double>(sampled.knownNs) >= kLeastShareKnown * static_cast<double>(windowNs);
}

/// The hang's own time in each state, in place of what a recording would tell.
void goBySamples(const Evidence& evidence, Findings& findings, Verdict& verdict) {
  const SampledPhases& sampled = findings.sampled;
  verdict.fromSamples = findings.bySamples = true;
  verdict.coveredNs = sampled.durationNs;
  findings.knownNs = sampled.knownNs;
  findings.spent = sampled.spent;
  findings.spent[static_cast<size_t>(ThreadState::unknown)] =
      verdict.windowNs - std::min(verdict.windowNs, sampled.knownNs);
  verdict.spent = findings.spent;
  findings.stillAwake = findings.thread->facts.state == 'R';
  findings.stillAsleep = sampled.likeTheLookNs > 0;
  findings.lastSleepNs = findings.sleeps.likeTheLookNs = sampled.likeTheLookNs;
  // What the thread waits for at the look is none of what was sampled.
  if (!findings.stillAsleep) findings.chain.reset();
  if (findings.chain) addRival(evidence, *findings.chain);
  verdict.phases = phasesOf(evidence, findings);
}

}  // namespace

Verdict judge(const Evidence& evidence) {
  const Recording& recording = evidence.recording;
  Findings findings = findingsOf(evidence);
  auto chain = evidence.isLaunch ? evidence.recordedChain : chainVerdict(evidence, findings.waitGraph);
  if (chain && tellsMore(*chain)) findings.chain = std::move(chain);
  Verdict verdict;
  verdict.windowNs = evidence.toNs - evidence.fromNs;
  verdict.coveredNs = sharedNs(evidence.fromNs, evidence.toNs, recording.coveredFromNs, recording.toNs);
  verdict.eventsLost = recording.lostEvents;
  verdict.pressure = evidence.pressure;
  bool isRecorded = verdict.coveredNs > 0;
  if (isRecorded) {
    if (findings.thread) verdict.spent = findings.spent;
    verdict.waits = findings.waits;
    verdict.wakers = findings.sleeps.wakers;
    verdict.busiest = findings.busiest;
    verdict.disk = findings.disk;
    if (findings.disk.busiest) verdict.diskUser = namedThread(evidence, *findings.disk.busiest);
  }
  auto windowNs = static_cast<double>(verdict.windowNs);
  verdict.fromRecorder = isRecorded && static_cast<double>(findings.knownNs) >= kLeastShareKnown * windowNs;
  if (findings.thread && !verdict.fromRecorder) forgetFigures(findings);
  if (verdict.fromRecorder) {
    verdict.phases = phasesOf(evidence, findings);
  } else if (findings.thread && tellBySamples(findings.sampled, verdict.windowNs)) {
    goBySamples(evidence, findings, verdict);
  } else if (findings.thread && !evidence.isLaunch) {
    if (findings.chain) addRival(evidence, *findings.chain);
    verdict.cause = causeByOneLook(evidence, findings);
  }
  if (!verdict.phases.empty()) verdict.cause = verdict.phases.front().cause;
  if (verdict.cause == Cause::disk && findings.diskUsers.count > 0 && !findings.diskUsers.areOwn)
    verdict.diskRival = findings.diskUsers.busiest;
  const bool isReady = findings.thread && findings.thread->facts.state == 'R';
  if (!verdict.fromRecorder && verdict.cause == Cause::starved && isReady && evidence.watchRivals)
    findings.rivals = evidence.watchRivals(evidence.process.pid, evidence.process.hungThread);
  if (findings.chain && isByChain(evidence, verdict, *findings.chain)) verdict.chain = findings.chain;
  verdict.sentence = verdictSentence(evidence, findings, verdict);
  return verdict;
}

}  // namespace kelvane
