#include "kelvane/verdict/verdict_sentence.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

#include "kelvane/verdict/display_names.h"
#include "kelvane/verdict/syscall_names.h"

namespace kelvane {
namespace {

/// From this share on, what is known stands for the whole hang: a switch or two at its border may be missing.
constexpr double kWholeShare = 0.95;

std::string decimal(double number) {
  std::array<char, 40> text;
  return {text.data(),
          std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed, 1).ptr};
}

/// "7.9 of 8.5 s", "340 of 400 ms", "8.5 s".
std::string ofDuration(uint64_t partNs, uint64_t wholeNs) {
  bool seconds = wholeNs >= 1'000'000'000;
  auto text = [&](uint64_t ns) {
    return seconds ? decimal(static_cast<double>(ns) / 1e9) : std::to_string((ns + 500'000) / 1'000'000);
  };
  std::string whole = text(wholeNs) + (seconds ? " s" : " ms");
  return text(partNs) == text(wholeNs) ? "all of " + whole : text(partNs) + " of " + whole;
}

std::string durationText(uint64_t ns) {
  return ofDuration(ns, ns).substr(strlen("all of "));
}

std::string bytesText(uint64_t bytes) {
  constexpr double kMb = 1 << 20;
  constexpr double kGb = 1 << 30;
  auto number = static_cast<double>(bytes);
  return number >= kGb ? decimal(number / kGb) + " GB" : decimal(number / kMb) + " MB";
}

std::string percentOf(uint64_t partNs, uint64_t wholeNs) {
  double share = wholeNs == 0 ? 0 : static_cast<double>(partNs) / static_cast<double>(wholeNs);
  return std::to_string(std::lround(std::min(share, 1.0) * 100)) + " %";
}

std::string quoted(const std::string& name) {
  return name.empty() ? std::string() : " '" + name + "'";
}

/// What a thread does that holds up another: "sleeping in hrtimer_nanosleep".
std::string doingText(const ThreadFacts& facts) {
  std::string text = facts.state == 'R' ? "running or ready to" : stateName(facts.state);
  return facts.waitChannel.empty() ? text : text + " in " + facts.waitChannel;
}

/// The function that the thread was in: the innermost one that is not of a language's own libraries, where
/// programs wait and read the clock.
std::string placeText(const ProcessCapture& process, const ThreadCapture& thread) {
  constexpr std::array<std::string_view, 6> kPlumbing = {"[vdso]",     "libc.so",      "ld-linux",
                                                         "libpthread", "libstdc++.so", "libc++.so"};
  auto isPlumbing = [&](const Frame& frame) {
    if (frame.module < 0) return false;
    std::string module = fileName(process.modules[static_cast<size_t>(frame.module)].path);
    return std::any_of(kPlumbing.begin(), kPlumbing.end(),
                       [&](auto name) { return module.starts_with(name); });
  };
  if (!thread.stack || thread.stack->frames.empty()) return {};
  const auto& frames = thread.stack->frames;
  auto found = std::find_if(frames.begin(), frames.end(),
                            [&](uint32_t index) { return !isPlumbing(process.frames[index]); });
  const Frame& frame = process.frames[found == frames.end() ? frames.front() : *found];
  std::string text = ", in " + frameName(process, frame);
  if (frame.name.empty() || frame.module < 0) return text;
  return text + " (" + fileName(process.modules[static_cast<size_t>(frame.module)].path) + ")";
}

class Sentence {
 public:
  Sentence(const Evidence& evidence, const Findings& findings, const Verdict& verdict)
      : evidence_(evidence),
        process_(evidence.process),
        findings_(findings),
        verdict_(verdict),
        asleepCounts_(!verdict.fromRecorder || findings.stillAsleep) {}

  std::string text() const {
    if (!findings_.thread) return withoutThread();
    const ThreadFacts& facts = findings_.thread->facts;
    return reservation() + facts.comm + " (thread " + std::to_string(facts.tid) + ") " + predicate() + ".";
  }

 private:
  /// On how little the verdict rests; empty if it rests on enough.
  std::string reservation() const {
    if (!verdict_.fromRecorder) return "Going by one look, without a recording of the hang: ";
    if (isWhole()) return {};
    return "Going by the " + ofDuration(findings_.knownNs, verdict_.windowNs) + " that are known: ";
  }

  bool isWhole() const {
    return static_cast<double>(findings_.knownNs) >= kWholeShare * static_cast<double>(verdict_.windowNs);
  }

  /// "7.9 of 8.5 s".
  std::string amount(uint64_t ns) const {
    return ofDuration(ns, isWhole() ? verdict_.windowNs : findings_.knownNs);
  }
  /// "for 7.9 of 8.5 s "; nothing when one look is all there is.
  std::string forAmount(uint64_t ns) const {
    return verdict_.fromRecorder ? "for " + amount(ns) + " " : std::string();
  }
  std::string spentAmount(ThreadState state) const { return forAmount(findings_.in(state)); }

  std::string predicate() const {
    switch (verdict_.cause) {
      case Cause::ownCpu:
        return busyText();
      case Cause::starved:
        return starvedText();
      case Cause::disk:
        return "waited " + spentAmount(ThreadState::uninterruptible) + "for the disk" + diskText();
      case Cause::lock:
        return "waited " + spentAmount(ThreadState::sleeping) + "for a lock that " + ownerText();
      case Cause::peer:
        return "waited " + spentAmount(ThreadState::sleeping) + "for " + peerText();
      case Cause::memory:
        return memoryText();
      case Cause::stopped:
        return "was stopped " + spentAmount(ThreadState::stopped) + stopperText();
      case Cause::suspended:
        return "stood still because the machine was going into suspend or coming back " +
               forAmount(findings_.suspendNs) + "of the hang";
      case Cause::sleeping:
        return "slept " + spentAmount(ThreadState::sleeping) + sleepText();
      case Cause::unknown:
        break;
    }
    return unknownText();
  }

  std::string busyText() const {
    std::string place =
        (!verdict_.fromRecorder || findings_.stillAwake) && findings_.thread->facts.state == 'R'
            ? placeText(process_, *findings_.thread)
            : std::string();
    if (!verdict_.fromRecorder) return "was busy itself, on the CPU or ready for it" + place;
    return "was busy itself: " + percentOf(findings_.in(ThreadState::running), findings_.knownNs) + " of " +
           durationText(isWhole() ? verdict_.windowNs : findings_.knownNs) + " on the CPU" + place;
  }

  std::string starvedText() const {
    if (!verdict_.fromRecorder) {
      return "was ready to run, but in its whole life has had only " +
             durationText((findings_.thread->facts.userMs + findings_.thread->facts.systemMs) * 1'000'000) +
             " of CPU time" + awakeText();
    }
    std::string text = "was ready to run for " +
                       percentOf(findings_.in(ThreadState::runnable), findings_.knownNs) + " of " +
                       durationText(isWhole() ? verdict_.windowNs : findings_.knownNs);
    if (findings_.idleRunnableNs > findings_.in(ThreadState::runnable) / 2)
      return text + ", but was held back although its CPU was idle (a CPU limit of its group, perhaps)";
    const Competitors& others = findings_.competitors;
    if (others.count == 0) return text + ", but got no CPU";
    text += ", but the CPU ran ";
    if (others.runningNs < findings_.in(ThreadState::runnable) / 2) text += "others, most of all ";
    if (others.count == 1) return text + threadText(others.busiest);
    return text + std::to_string(others.count) + " threads named '" + others.busiest.name +
           "', such as pid " +
           std::to_string(others.busiest.pid == 0 ? others.busiest.tid : others.busiest.pid);
  }

  /// A process that runs at the moment of the look, since there is no record of the time before it.
  std::string awakeText() const {
    for (const AwakeProcess& process : evidence_.processes.awake) {
      if (process.state == 'R' && process.pid != process_.pid)
        return "; running at the look:" + quoted(process.comm) + " (pid " + std::to_string(process.pid) + ")";
    }
    return {};
  }

  std::string threadText(const NamedThread& thread) const {
    if (thread.pid == process_.pid) return "its own thread" + quoted(thread.name);
    std::string name = thread.name.empty() ? "a thread" : "'" + thread.name + "'";
    if (thread.pid == 0) return name + " (thread " + std::to_string(thread.tid) + ")";
    return name + " (pid " + std::to_string(thread.pid) + ")";
  }

  std::string diskText() const {
    if (!verdict_.disk || verdict_.disk->requests == 0) return {};
    const DiskActivity& disk = *verdict_.disk;
    return " (the system's " + std::to_string(disk.requests) + " requests: " + bytesText(disk.readBytes) +
           " read, " + bytesText(disk.writtenBytes) + " written; the slowest took " +
           decimal(static_cast<double>(disk.slowestNs) / 1e6) + " ms)";
  }

  std::string ownerText() const {
    const NamedThread owner = verdict_.lockOwner.value_or(NamedThread{});
    if (owner.tid == process_.hungThread) return "it holds itself";
    std::string text = "thread " + std::to_string(owner.tid) + quoted(owner.name) + " holds";
    for (const ThreadCapture& thread : process_.threads) {
      if (thread.facts.tid == owner.tid) return text + ", itself " + doingText(thread.facts);
    }
    return text;
  }

  std::string peerText() const {
    const Peer peer = verdict_.peer.value_or(Peer{});
    if (peer.pid == process_.pid) return "another thread of its own process, through a " + peer.through;
    return "process" + quoted(peer.process) + " (pid " + std::to_string(peer.pid) + "), through a " +
           peer.through;
  }

  std::string memoryText() const {
    if (findings_.reclaimNs > 0)
      return "had to free memory itself " + forAmount(findings_.reclaimNs) +
             "before it could go on: memory is short";
    return "waited " + spentAmount(ThreadState::uninterruptible) +
           "for its own code and files to be read back in (" + std::to_string(findings_.pageIns) +
           " pages): memory is short";
  }

  std::string stopperText() const {
    pid_t tracer = findings_.thread->facts.tracerPid;
    if (tracer != 0) return "by a debugger (tracer pid " + std::to_string(tracer) + ")";
    if (!findings_.stopSignal) return "by a signal or a debugger";
    const RecordedEvent& signal = *findings_.stopSignal;
    const char* name = sigabbrev_np(static_cast<int>(signal.value));
    std::string text = std::string("by the signal SIG") + (name ? name : "STOP");
    return signal.other == 0 ? text : text + " from thread " + std::to_string(signal.other);
  }

  std::string sleepText() const {
    const ThreadFacts& facts = findings_.thread->facts;
    if (asleepCounts_) {
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
    const auto waker = findings_.waits.empty() ? std::nullopt : findings_.waits.front().wokenBy;
    if (waker)
      return "and was woken from its longest sleep by " +
             (waker->tid == 0 ? waker->name : threadText(*waker));
    return "for a reason that can't be told any more";
  }

  std::string unknownText() const {
    const ThreadFacts& facts = findings_.thread->facts;
    if (facts.state == 'Z' || facts.state == 'X' || facts.state == '?')
      return "has ended; why it hung can't be told";
    if (findings_.in(ThreadState::uninterruptible) == 0 && facts.state != 'D')
      return "hung for a reason that can't be told";
    std::string channel = asleepCounts_ && !facts.waitChannel.empty() ? " (" + facts.waitChannel + ")" : "";
    return "waited " + spentAmount(ThreadState::uninterruptible) + "in the kernel" + channel +
           ", for something that is no disk";
  }

  std::string withoutThread() const {
    std::string text = "There is no process to judge by";
    if (verdict_.busiest.empty()) return text + ".";
    const BusyThread& busiest = verdict_.busiest.front();
    return text + "; most of the CPU time went to " + threadText(busiest.thread) + ": " +
           ofDuration(busiest.runningNs, verdict_.windowNs) + ".";
  }

  const Evidence& evidence_;
  const ProcessCapture& process_;
  const Findings& findings_;
  const Verdict& verdict_;
  const bool asleepCounts_;  // what the look saw of a sleep is about the hang
};

}  // namespace

std::string verdictSentence(const Evidence& evidence, const Findings& findings, const Verdict& verdict) {
  return Sentence(evidence, findings, verdict).text();
}

}  // namespace kelvane
