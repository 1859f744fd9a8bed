#include "kelvane/verdict/verdict_sentence.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>

#include "kelvane/verdict/chain_sentence.h"
#include "kelvane/verdict/chain_verdict.h"
#include "kelvane/verdict/display_names.h"
#include "kelvane/verdict/duration_text.h"
#include "kelvane/verdict/syscall_names.h"

namespace kelvane {
namespace {

/// From this share on, what is known stands for the whole hang: a switch or two at its border may be missing.
constexpr double kWholeShare = 0.95;

/// What lasted for less than one of so many parts of a launch did not make it slow.
constexpr uint64_t kFewestParts = 5;

std::string bytesText(uint64_t bytes) {
  constexpr double kMb = 1 << 20;
  constexpr double kGb = 1 << 30;
  auto number = static_cast<double>(bytes);
  return number >= kGb ? decimal(number / kGb) + " GB" : decimal(number / kMb) + " MB";
}

/// "8.5 ms", below a second; else as durationText.
std::string msText(uint64_t ns) {
  return ns < 1'000'000'000 ? decimal(static_cast<double>(ns) / 1e6) + " ms" : durationText(ns);
}

/// "1 request", "2 requests".
std::string counted(uint64_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string percentOf(uint64_t partNs, uint64_t wholeNs) {
  double share = wholeNs == 0 ? 0 : static_cast<double>(partNs) / static_cast<double>(wholeNs);
  return std::to_string(std::lround(std::min(share, 1.0) * 100)) + " %";
}

class Sentence {
 public:
  Sentence(const Evidence& evidence, const Findings& findings, const Verdict& verdict)
      : evidence_(evidence), process_(evidence.process), findings_(findings), verdict_(verdict) {}

  std::string text() const {
    if (!findings_.thread) return withoutThread();
    const ThreadFacts& facts = findings_.thread->facts;
    return reservation() + facts.comm + " (thread " + std::to_string(facts.tid) + ") " +
           predicate(firstPhase()) + furtherPhases() + ".";
  }

 private:
  /// On how little the verdict rests; empty if it rests on enough.
  std::string reservation() const {
    if (!verdict_.hasTimes()) return "Going by one look, without a recording of the hang: ";
    if (isWhole()) return verdict_.fromSamples ? "Going by samples: " : "";
    return "Going by " + std::string(verdict_.fromSamples ? "samples of " : "the ") +
           ofDuration(findings_.knownNs, verdict_.windowNs) +
           (verdict_.fromSamples ? ": " : " that are known: ");
  }

  const char* what() const { return evidence_.isLaunch ? "launch" : "hang"; }

  bool isWhole() const {
    return static_cast<double>(findings_.knownNs) >= kWholeShare * static_cast<double>(verdict_.windowNs);
  }

  /// "7.9 of 8.5 s".
  std::string amount(uint64_t ns) const {
    return ofDuration(ns, isWhole() ? verdict_.windowNs : findings_.knownNs);
  }
  /// "for 7.9 of 8.5 s "; nothing when one look is all there is.
  std::string forAmount(uint64_t ns) const {
    return verdict_.hasTimes() ? "for " + amount(ns) + " " : std::string();
  }
  std::string spentAmount(ThreadState state) const { return forAmount(findings_.in(state)); }

  /// What else it did for much of the time.
  std::string furtherPhases() const {
    std::string text;
    for (size_t i = 1; i < verdict_.phases.size(); i++) {
      const Phase& phase = verdict_.phases[i];
      // Who had the CPU beside the main cause is of no interest.
      text += "; it also " + (phase.cause == Cause::starved ? readyText() : predicate(phase));
    }
    return text;
  }

  Phase firstPhase() const {
    if (!verdict_.phases.empty()) return verdict_.phases.front();
    const bool isInKernel = findings_.thread->facts.state == 'D';
    return {verdict_.cause, isInKernel ? ThreadState::uninterruptible : ThreadState::unknown, 0};
  }

  std::string predicate(const Phase& phase) const {
    if (verdict_.chain && (!verdict_.hasTimes() || phase.state == verdict_.chain->state ||
                           (phase.cause == Cause::stopped && tellsTracer(*verdict_.chain))))
      return chainText(process_, *verdict_.chain, waitedAmount());
    switch (phase.cause) {
      case Cause::ownCpu:
        return busyText();
      case Cause::starved:
        return starvedText();
      case Cause::throttled:
        return phase.state == ThreadState::uninterruptible ? heldBackText() : throttledText();
      case Cause::disk:
        return diskText();
      case Cause::memory:
        return memoryText(phase.state == ThreadState::uninterruptible);
      case Cause::stopped:
        return "was stopped " + spentAmount(ThreadState::stopped) + stopperText();
      case Cause::suspended:
        return "stood still because the machine was going into suspend or coming back " +
               forAmount(findings_.suspendNs) + "of the " + what();
      case Cause::frozen:
        return frozenText();
      case Cause::swapping:
        return "waited " + spentAmount(ThreadState::uninterruptible) +
               "for memory that had been taken from it (swap)";
      case Cause::child:
        return "waited " + spentAmount(ThreadState::uninterruptible) +
               "for a child that it had made by vfork to execute a program or to end";
      case Cause::server:
        return "waited " + spentAmount(phase.state) + "for the server of a file system" + channelText();
      case Cause::sleeping:
        return "slept " + spentAmount(ThreadState::sleeping) + sleepText();
      default:
        break;
    }
    return unknownText();
  }

  std::string waitedAmount() const {
    const ThreadState state = verdict_.chain->state;
    return (state == ThreadState::sleeping ? forAmount(findings_.sleeps.likeTheLookNs) : spentAmount(state)) +
           waitedPlace();
  }

  /// Where it waited, if it also did other things for much of the time.
  std::string waitedPlace() const {
    const std::string place = sampledPlace(verdict_.chain->state);
    return verdict_.phases.size() < 2 || place.empty() ? "" : place + " ";
  }

  /// Empty if too little was sampled to speak for the hang.
  SampledPhases::Place sampledIn(ThreadState state) const {
    const bool speaks = verdict_.fromSamples || findings_.sampled.knownNs >= verdict_.windowNs / 2;
    return speaks ? findings_.sampled.placeIn(state) : SampledPhases::Place{};
  }

  /// "in crunch", "mostly in crunch"; empty if no function had most of that state's time, or none was seen.
  std::string sampledPlace(ThreadState state) const {
    const SampledPhases::Place place = sampledIn(state);
    if (place.function.empty()) return {};
    return (place.isAlmostAll ? "in " : "mostly in ") + place.function;
  }

  std::string busyText() const {
    std::string place = sampledPlace(ThreadState::running);
    const bool isAtLook = !verdict_.hasTimes() || (verdict_.fromRecorder && findings_.stillAwake);
    if (!place.empty()) {
      place = ", " + place;
    } else if (isAtLook && findings_.thread->facts.state == 'R') {
      place = placeText(process_, *findings_.thread);
    }
    if (isMemoryShort(verdict_.pressure)) place += ", while memory was short";
    if (!verdict_.hasTimes()) return "was busy itself, going by the CPU time of its life" + place;
    return "was busy itself: " + percentOf(findings_.in(ThreadState::running), findings_.knownNs) + " of " +
           durationText(isWhole() ? verdict_.windowNs : findings_.knownNs) + " on the CPU" + place;
  }

  std::string readyText() const {
    if (!verdict_.hasTimes()) return "was ready to run at the look";
    return "was ready to run for " + percentOf(findings_.in(ThreadState::runnable), findings_.knownNs) +
           " of " + durationText(isWhole() ? verdict_.windowNs : findings_.knownNs);
  }

  std::string starvedText() const {
    if (!verdict_.hasTimes()) {
      const ScheduleFigures life = evidence_.after.schedule.value_or(ScheduleFigures{});
      return readyText() + ", and in its life has waited " + durationText(life.waitedNs) +
             " for a CPU and had one for " + durationText(life.ranNs) + rivalsText();
    }
    std::string text = readyText();
    if (findings_.idleRunnableNs > findings_.in(ThreadState::runnable) / 2)
      return text + ", but was held back although its CPU was idle (a CPU limit of its group, perhaps)";
    const Competitors& others = findings_.competitors;
    if (verdict_.fromSamples) return text + " without being given a CPU" + rivalsText() + quotaReservation();
    if (others.count == 0) return text + ", but got no CPU";
    text += ", but the CPU ran ";
    if (others.runningNs < findings_.in(ThreadState::runnable) / 2) text += "others, most of all ";
    return text + competitorsText(others) + quotaReservation();
  }

  std::string competitorsText(const Competitors& others) const {
    if (others.count == 1) return threadText(others.busiest);
    // Without a recording only the hung process's threads are told apart.
    std::string text =
        std::to_string(others.count) + (verdict_.fromRecorder || others.areOwn ? " threads" : " processes");
    if (others.areOwn) text += " of its own process";
    if (!others.busiest.name.empty()) text += " named '" + others.busiest.name + "'";
    if (others.areOwn) return text;
    const bool hasProcess = others.busiest.pid != 0;
    return text + ", such as " + (hasProcess ? "pid " : "thread ") +
           std::to_string(hasProcess ? others.busiest.pid : others.busiest.tid);
  }

  /// Whose limit it may have been just as well.
  std::string quotaReservation() const {
    const auto& quota = evidence_.after.limits.quota;
    if (!quota || quota->throttledNs < findings_.in(ThreadState::runnable) / 2) return {};
    return "; the CPU limit of its control group " + quota->group + " may have held it back, too";
  }

  std::string throttledText() const {
    const auto& quota = evidence_.after.limits.quota;
    std::string text = readyText() + ", but its control group ";
    if (!quota) return text + "had used up its CPU time";
    const std::string most = quota->cpus < 1 ? percentOf(std::llround(quota->cpus * 1000), 1000) + " of a CPU"
                                             : decimal(quota->cpus) + (quota->cpus == 1 ? " CPU" : " CPUs");
    return text + quota->group + " may use no more than " + most + sharersText();
  }

  /// Who else had much of the time that the group was given.
  std::string sharersText() const {
    const Competitors& sharers = findings_.sharers;
    if (sharers.runningNs <= findings_.in(ThreadState::running)) return {};
    return ", which it shares with others: " + competitorsText(sharers) + " ran for " +
           durationText(sharers.runningNs);
  }

  std::string heldBackText() const {
    return "waited " + spentAmount(ThreadState::uninterruptible) +
           "because the disk I/O of its control group " + evidence_.after.limits.diskLimit + " is limited" +
           channelText();
  }

  std::string frozenText() const {
    const std::string& group = evidence_.after.limits.frozen;
    return "was frozen " + forAmount(findings_.lastSleepNs) +
           (group.empty() ? "with its control group" : "with its control group " + group);
  }

  /// Who had its CPU right after the look.
  std::string rivalsText() const {
    if (!findings_.rivals) return {};
    const Rivals& rivals = *findings_.rivals;
    Competitors others;
    others.busiest = {rivals.busiest, rivals.name, rivals.areOwn ? process_.pid : rivals.busiest,
                      rivals.name};
    others.areOwn = rivals.areOwn;
    others.count = rivals.count;
    return "; for " + ofDuration(rivals.ranMs * 1'000'000, rivals.watchedMs * 1'000'000) +
           " right after the look its CPU ran " + competitorsText(others);
  }

  std::string threadText(const NamedThread& thread) const {
    if (thread.pid == process_.pid) return "its own thread" + quoted(thread.name);
    std::string name = thread.name.empty() ? "a thread" : "'" + thread.name + "'";
    if (thread.pid == 0) return name + " (thread " + std::to_string(thread.tid) + ")";
    return name + " (pid " + std::to_string(thread.pid) + ")";
  }

  /// At the look, which is all there is.
  bool faultedWhileAwake() const {
    return !verdict_.hasTimes() && findings_.faultedAtLook && findings_.thread->facts.state == 'R';
  }
  static constexpr const char* kFaulted = "was awake at the look, but had pages read in again and again";

  std::string diskText() const {
    const std::string& limited = evidence_.after.limits.diskLimit;
    const std::string limit =
        limited.empty() ? "" : "; the disk I/O of its control group " + limited + " is limited";
    if (!verdict_.fromRecorder) {
      if (faultedWhileAwake()) return kFaulted + (", from a disk unless they lay elsewhere" + limit);
      const std::string waited = "waited " + spentAmount(ThreadState::uninterruptible);
      const KernelWait wait = kernelWaitWithoutRecorder();
      if (wait == KernelWait::page)
        return waited + "for a page of a file, from a disk unless the file lies elsewhere" + limit;
      if (wait == KernelWait::fileSystem)
        return waited + "in a file system on a disk" + channelText() + limit;
      return waited + "for the disk" + limit;
    }
    const DiskWaits& waits = findings_.diskWaits;
    if (waits.waitedNs == 0)
      return "waited " + spentAmount(ThreadState::uninterruptible) +
             "for the disk (no request that it waited for is recorded)";
    std::string text = "waited " + forAmount(waits.waitedNs) +
                       "for the disk (the slowest request that it waited for took " + msText(waits.slowestNs);
    if (findings_.diskUsers.count > 0)
      text += "; of what others are known to have asked of it, most came from " +
              competitorsText(findings_.diskUsers);
    if (verdict_.disk) {
      const DiskActivity& disk = *verdict_.disk;
      text += "; the system had " + counted(disk.requests, "request") + ": " + bytesText(disk.readBytes) +
              " read, " + bytesText(disk.writtenBytes) + " written";
    }
    return text + ")" + limit;
  }

  /// That of most of the time, by samples; else that of the look.
  KernelWait kernelWaitWithoutRecorder() const {
    const KernelWait sampled = findings_.sampled.placeIn(ThreadState::uninterruptible).kernelWait;
    return verdict_.fromSamples && sampled != KernelWait::unknown ? sampled : findings_.kernelWait;
  }

  std::string memoryText(bool asleep) const {
    const std::string waited = "waited " + spentAmount(ThreadState::uninterruptible);
    if (asleep && findings_.pageIns > 0)
      return waited + "for its own code and files to be read back in (" + counted(findings_.pageIns, "page") +
             ")" + shortText();
    if (faultedWhileAwake()) return kFaulted + shortText();
    if (!verdict_.fromRecorder && kernelWaitWithoutRecorder() == KernelWait::page)
      return waited + "for a page of a file" + shortText();
    if (findings_.reclaimNs > 0 && verdict_.fromRecorder)
      return "had to free memory itself " + forAmount(findings_.reclaimNs) + "before it could go on" +
             shortText();
    return waited + "for memory to be freed" + shortText();
  }

  std::string shortText() const {
    const auto& memory = evidence_.after.limits.memory;
    if (!findings_.memoryLimitHit || !memory) return ": memory is short";
    return ": its control group " + memory->group + " is at its limit of " + bytesText(memory->limitBytes);
  }

  std::string stopperText() const {
    pid_t tracer = findings_.thread->facts.tracerPid;
    if (tracer != 0) return "by a debugger (tracer pid " + std::to_string(tracer) + ")";
    if (!findings_.stopSignal) return "by a signal or a debugger";
    const RecordedEvent& signal = *findings_.stopSignal;
    const char* name = sigabbrev_np(static_cast<int>(signal.value));
    std::string text = std::string("by the signal SIG") + (name ? name : "STOP");
    return findings_.stopSender ? text + " from " + threadText(*findings_.stopSender) : text;
  }

  /// How it slept: by what the look saw if that stands for most of the sleep, else by what ended the sleeps.
  std::string sleepText() const {
    const Sleeps& sleeps = findings_.sleeps;
    const uint64_t sleptNs = findings_.in(ThreadState::sleeping);
    const bool isRepeated = sleeps.count > 1 && sleeps.longestNs <= sleptNs / 2;
    if (!verdict_.hasTimes()) return lookText();
    if (sleeps.likeTheLookNs > sleptNs / 2)
      return lookText() + (isRepeated ? ", " + std::to_string(sleeps.count) + " times" : "");
    if (verdict_.fromSamples) return sampledSleepText();
    // What the thread waits for at the look may be something else.
    const bool sleptAgain = isRepeated && findings_.thread->facts.state == 'S';
    return endsText(sleptNs) + (sleptAgain ? "; at the look it slept " + lookText() : "");
  }

  /// "in save_index (futex_do_wait)".
  std::string sampledSleepText() const {
    const std::string channel = sampledIn(ThreadState::sleeping).kernelFunction;
    const std::string inKernel = channel.empty() ? "" : "(" + channel + ")";
    const std::string place = sampledPlace(ThreadState::sleeping);
    if (place.empty() && channel.empty()) return "for reasons that can't be told";
    return place + (place.empty() || channel.empty() ? "" : " ") + inKernel;
  }

  std::string lookText() const {
    const ThreadFacts& facts = findings_.thread->facts;
    const char* name = facts.syscall ? syscallName(facts.syscall->number) : nullptr;
    std::string_view call = name ? name : "";
    std::string place = placeText(process_, *findings_.thread);
    if (call.find("nanosleep") != std::string_view::npos) return "because it had asked for it" + place;
    if (call.find("poll") != std::string_view::npos || call.find("select") != std::string_view::npos)
      return "and waited for an event (" + std::string(call) + ")" + place;
    if (call == "futex") return "and waited for another thread (futex)" + place;
    if (name) return "in the system call " + std::string(call) + place;
    return facts.waitChannel.empty() ? "for a reason that can't be told" : "in " + facts.waitChannel;
  }

  std::string endsText(uint64_t sleptNs) const {
    const Sleeps& sleeps = findings_.sleeps;
    const bool isOne = sleeps.count == 1;
    std::string ends;
    for (const Waker& waker : sleeps.wakers) {
      if (waker.sleptNs < sleptNs / 5) continue;
      ends += (ends.empty() ? "" : " and ") + enderText(waker);
      if (!isOne) ends += " (" + durationText(waker.sleptNs) + " of it)";
    }
    if (isOne)
      return ends.empty() ? "for a reason that can't be told any more" : "until it was woken by " + ends;
    const std::string text = "in " + std::to_string(sleeps.count) + " sleeps";
    return ends.empty() ? text + ", for reasons that can't be told" : text + " that were ended by " + ends;
  }

  std::string enderText(const Waker& waker) const {
    const bool isOne = waker.sleeps == 1;
    switch (waker.end) {
      case SleepEnd::thread:
        return threadText(waker.thread.value_or(NamedThread{}));
      case SleepEnd::timeOut:
        return isOne ? "a time-out of its own" : "time-outs of its own";
      case SleepEnd::disk:
        return isOne ? "a request of a disk" : "requests of disks";
      case SleepEnd::interrupt:
      case SleepEnd::open:
        break;
    }
    return std::string(isOne ? "an interrupt" : "interrupts") + " of a device, the network or a clock";
  }

  /// " (vfork_wait)", if it was still there at the look.
  std::string channelText() const {
    const bool isAtLook = !verdict_.hasTimes() || findings_.stillAsleep;
    std::string channel = isAtLook ? findings_.thread->facts.waitChannel : std::string();
    if (verdict_.fromSamples) channel = sampledIn(ThreadState::uninterruptible).kernelFunction;
    return channel.empty() ? "" : " (" + channel + ")";
  }

  std::string unknownText() const {
    const ThreadFacts& facts = findings_.thread->facts;
    // Of a launch's threads '?' is that nobody has looked at them.
    if (facts.state == 'Z' || facts.state == 'X' || (facts.state == '?' && !evidence_.isLaunch))
      return std::string("has ended; why ") + (evidence_.isLaunch ? "that took so long" : "it hung") +
             " can't be told";
    if (!verdict_.hasTimes() && facts.state == 'R' && evidence_.after.schedule) {
      const ScheduleFigures life = *evidence_.after.schedule;
      if (std::max(life.ranNs, life.waitedNs) < verdict_.windowNs / 2)
        return "was awake at the look, but has not been in its life for half as long as the hang: it slept or "
               "waited, for what can't be told";
    }
    if (findings_.in(ThreadState::uninterruptible) == 0 && facts.state != 'D')
      return std::string(evidence_.isLaunch ? "took its time" : "hung") + " for a reason that can't be told";
    std::string text =
        "waited " + spentAmount(ThreadState::uninterruptible) + "in the kernel" + channelText();
    const KernelWait wait = verdict_.fromRecorder ? findings_.kernelWait : kernelWaitWithoutRecorder();
    if (wait == KernelWait::lock && !channelText().empty()) text += ", for a lock of its own";
    if (findings_.diskWaits.heldBackNs > findings_.in(ThreadState::uninterruptible) / 2)
      return text + ", for a disk that was asked late: something held back its requests";
    const Wait* longest = longestKernelWait();
    return longest && longest->wokenBy
               ? text + ", the longest time until " + threadText(*longest->wokenBy) + " woke it"
               : text;
  }

  const Wait* longestKernelWait() const {
    for (const Wait& wait : findings_.waits) {
      if (wait.state == ThreadState::uninterruptible) return &wait;
    }
    return nullptr;
  }

  std::string withoutThread() const {
    std::string text = "There is no process to judge by";
    if (verdict_.diskUser && verdict_.disk->busyNs >= verdict_.windowNs / kFewestParts)
      text += "; the disks were busy for " + ofDuration(verdict_.disk->busyNs, verdict_.windowNs) +
              ", most of all for " + threadText(*verdict_.diskUser);
    if (verdict_.busiest.empty()) return text + ".";
    const BusyThread& busiest = verdict_.busiest.front();
    return text + "; most of the CPU time went to " + threadText(busiest.thread) + ": " +
           ofDuration(busiest.runningNs, verdict_.windowNs) + ".";
  }

  const Evidence& evidence_;
  const ProcessCapture& process_;
  const Findings& findings_;
  const Verdict& verdict_;
};

}  // namespace

std::string verdictSentence(const Evidence& evidence, const Findings& findings, const Verdict& verdict) {
  return Sentence(evidence, findings, verdict).text();
}

}  // namespace kelvane
