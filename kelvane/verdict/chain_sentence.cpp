#include "kelvane/verdict/chain_sentence.h"

#include <algorithm>
#include <set>
#include <vector>

#include "kelvane/verdict/display_names.h"
#include "kelvane/verdict/syscall_names.h"

namespace kelvane {
namespace {

class ChainSentence {
 public:
  ChainSentence(const ProcessCapture& process, const ChainVerdict& verdict)
      : process_(process), verdict_(verdict), links_(verdict.chain.links) {}

  /// What each link does, by itself.
  std::vector<std::string> steps() {
    std::vector<std::string> texts;
    for (size_t i = 0; i < links_.size(); i++) {
      const bool isLast = i + 1 == links_.size();
      const size_t next = isLast ? verdict_.chain.deadlockFrom.value_or(i) : i + 1;
      if (links_[i].holder) {
        texts.push_back(next == i ? waitsForItself(i) : waitsFor(i, called(next), false));
      } else {
        texts.push_back(links_.size() == 1 ? "waited for " + nobodyText() : endText(""));
      }
    }
    return texts;
  }

  std::string text(const std::string& forAmount) {
    if (verdict_.chain.deadlockFrom) return deadlockText(*verdict_.chain.deadlockFrom, forAmount);
    if (!verdict_.chain.leadsOn()) return "waited " + forAmount + "for " + nobodyText();
    const bool isStopped = verdict_.state == ThreadState::stopped;
    std::string text = (isStopped ? "was stopped " : "waited ") + forAmount;
    if (verdict_.chain.sureness() == Sureness::guess) text += "probably ";
    text += "because " + introduced(links_.size() - 1) + " " + endText(place(links_.back())) + ": ";
    for (size_t i = links_.size() - 1; i-- > 0;) {
      if (i + 2 < links_.size()) text += ", and ";
      text += clause(i, i + 2 == links_.size() ? "it" : called(i + 1), isToldBefore(i));
    }
    return text;
  }

 private:
  bool isSure() const { return verdict_.chain.sureness() == Sureness::certain; }

  /// Each of the circle waits for the next, and the last for the first. Whoever stands before the circle
  /// waits for it.
  std::string deadlockText(size_t first, const std::string& forAmount) {
    if (first + 1 == links_.size() && first == 0) {
      return "waited " + forAmount + "in a deadlock with itself: it " + waitsForItself(0);
    }
    std::string text = "waited " + forAmount + (first == 0 ? "in" : "because of");
    text += isSure() ? " a deadlock: " : " what is probably a deadlock: ";
    for (size_t i = first; i < links_.size(); i++) {
      const bool isLast = i + 1 == links_.size();
      const bool isShort = i > first && isSameLock(i - 1, i);
      if (i > first) text += isLast ? ", and " : ", ";
      const std::string next = isLast ? called(first) : introduced(i + 1);
      if (first + 1 == links_.size()) {
        text += introduced(i) + " " + waitsForItself(i);
      } else {
        text += (i == 0 ? "it" : called(i)) + (isShort ? " " : " waits ") + forWhom(i, next, isShort);
      }
    }
    for (size_t i = first; i-- > 0;) text += "; " + called(i) + " " + waitsFor(i, called(i + 1), false);
    return text;
  }

  std::string clause(size_t i, const std::string& holder, bool isShort) {
    return called(i) + " " + waitsFor(i, holder, isShort);
  }
  std::string waitsFor(size_t i, const std::string& holder, bool isShort) const {
    const PartyWait& wait = *links_[i].wait;
    if (wait.kind == WaitKind::tracer) return "is stopped by " + holder + ", its tracer";
    const std::string how = wait.isRetried ? "tries again and again, and sleeps in between, " : "waits ";
    return (isShort ? "" : how) + forWhom(i, holder, isShort);
  }

  std::string waitsForItself(size_t i) const {
    const WaitKind kind = links_[i].wait->kind;
    return kind == WaitKind::lock || kind == WaitKind::readWriteLock ? waitsFor(i, "it", false) + " itself"
                                                                     : waitsFor(i, "itself", false);
  }

  /// "for a lock that HOLDER holds", or "for one that HOLDER holds" where a lock was spoken of before.
  std::string forWhom(size_t i, const std::string& holder, bool isShort) const {
    const PartyWait& wait = *links_[i].wait;
    const auto lock = [&](const std::string& what, const char* has) {
      return "for " + (isShort ? "one" : what) + " that " + holder + " " + has;
    };
    switch (wait.kind) {
      case WaitKind::lock:
        return lock("a lock", "holds");
      case WaitKind::readWriteLock:
        return lock("a read-write lock", "has taken for writing");
      case WaitKind::readers:
        return lock("a read-write lock", "has taken for reading");
      case WaitKind::signal:
        return "for a signal of " + holder;
      case WaitKind::streamLock:
        return lock("a stream's lock", "holds");
      case WaitKind::fileLock:
        return lock("a lock of " + wait.object, "holds");
      case WaitKind::threadEnd:
        return "for " + holder + " to end";
      case WaitKind::child:
        return (holder == "it" ? "for it, its child, to " : "for its child " + holder + " to ") + wait.object;
      case WaitKind::server:
        return "for " + wait.object + ", which " + holder + " serves";
      default:
        return "for " + holder + (wait.object.empty() ? "" : ", through " + wait.object);
    }
  }

  /// What the hung thread waits for, where nobody is known who would end it.
  std::string nobodyText() const {
    const PartyWait& wait = *links_.front().wait;
    switch (wait.kind) {
      case WaitKind::readers:
        return "a read-write lock that readers hold, of whom no list is kept";
      case WaitKind::signal:
        return "a signal of another thread, which can't be told";
      case WaitKind::network:
      case WaitKind::server:
      case WaitKind::events:
        return wait.object;
      case WaitKind::child:
        return "a child process to " + wait.object + "; which one can't be told";
      default:
        return (wait.object.empty() ? std::string("a ") + waitKindName(wait.kind) : wait.object) +
               "; who keeps it from going on can't be told";
    }
  }

  bool isSameLock(size_t i, size_t other) const {
    const WaitKind kind = links_[i].wait->kind;
    const bool isLock = kind == WaitKind::lock || kind == WaitKind::readWriteLock;
    return isLock && kind == links_[other].wait->kind;
  }
  /// Whether the clause before was about the same kind of lock.
  bool isToldBefore(size_t i) const { return i + 2 < links_.size() && isSameLock(i + 1, i); }

  /// `where`: place() of the last link, or nothing.
  std::string endText(const std::string& where) const {
    const ChainLink& last = links_.back();
    const ThreadFacts& facts = last.party.facts;
    const char* name = facts.syscall ? syscallName(facts.syscall->number) : nullptr;
    const std::string call = name ? name : "";
    switch (verdict_.end) {
      case ChainEnd::computed:
        return "was computing" + where;
      case ChainEnd::starved:
        return "was not given a CPU" +
               (verdict_.ranInstead ? ", which ran " + other(*verdict_.ranInstead) : "");
      case ChainEnd::throttled:
        return "had used up the CPU time of its control group";
      case ChainEnd::frozen:
        return "was frozen with its control group";
      case ChainEnd::stopped:
        return facts.tracerPid == 0 ? "was stopped"
                                    : "was stopped by its tracer, pid " + std::to_string(facts.tracerPid);
      case ChainEnd::disk:
        return "waited for the disk" + where +
               (verdict_.diskUser ? ", of which " + other(*verdict_.diskUser) + " asked most" : "");
      case ChainEnd::kernel:
        return "waited in the kernel" + (facts.waitChannel.empty() ? "" : " (" + facts.waitChannel + ")") +
               where;
      case ChainEnd::slept:
        return "slept" + (call.empty() ? "" : " (" + call + ")") + where;
      case ChainEnd::ended:
        return "has ended";
      case ChainEnd::waited:
      case ChainEnd::deadlock:
        break;
    }
    return waitedText(last, call) + where;
  }

  std::string waitedText(const ChainLink& last, const std::string& call) const {
    const auto kind = last.wait ? std::optional(last.wait->kind) : std::nullopt;
    const bool isEvents = call.find("poll") != std::string::npos || call.find("select") != std::string::npos;
    if (kind == WaitKind::signal) return "waited for a signal of another thread";
    if (kind == WaitKind::readers) return "waited for a read-write lock that readers hold";
    if (kind == WaitKind::network || kind == WaitKind::server) return "waited for " + last.wait->object;
    if (isEvents) return "waited for an event (" + call + ")";
    if (!call.empty()) return "waited in the system call " + call;
    const std::string& channel = last.party.facts.waitChannel;
    return channel.empty() ? "waited for what can't be told" : "waited in " + channel;
  }

  /// Of one that has gone on since its stack is of something else.
  std::string place(const ChainLink& link) const {
    if (!link.hasStayed()) return {};
    const ThreadCapture* thread = threadOf(process_, link.party.facts.tid);
    return thread ? placeText(process_, *thread) : std::string();
  }

  std::string other(const NamedThread& thread) const {
    const std::string name = thread.name.empty() ? "another" : "'" + thread.name + "'";
    return name + (thread.pid == 0 ? " (thread " + std::to_string(thread.tid) + ")"
                                   : " (pid " + std::to_string(thread.pid) + ")");
  }

  /// With its id, the first time that it is spoken of.
  std::string introduced(size_t i) {
    const WaitParty& party = links_[i].party;
    if (i == 0) return called(0);
    told_.insert(i);
    const std::string tid = " (" + std::to_string(party.facts.tid) + ")";
    if (party.pid == process_.pid) return "thread" + quoted(party.facts.comm) + tid;
    const std::string process = quoted(party.process) + " (pid " + std::to_string(party.pid) + ")";
    return party.facts.tid == party.pid ? "process" + process
                                        : "thread" + quoted(party.facts.comm) + tid + " of" + process;
  }
  std::string called(size_t i) {
    const WaitParty& party = links_[i].party;
    if (i == 0) return party.facts.comm;
    const bool isNew = told_.insert(i).second;
    const bool isAlone = std::count_if(links_.begin(), links_.end(), [&](const ChainLink& link) {
                           return link.party.facts.comm == party.facts.comm;
                         }) == 1;
    std::string name = "'" + party.facts.comm + "'";
    if (!isNew && isAlone) return name;
    return name + (party.facts.tid == party.pid && party.pid != process_.pid ? " (pid " : " (") +
           std::to_string(party.facts.tid) + ")";
  }

  const ProcessCapture& process_;
  const ChainVerdict& verdict_;
  const std::vector<ChainLink>& links_;
  std::set<size_t> told_;  // links that have been introduced
};

}  // namespace

std::vector<std::string> chainSteps(const ProcessCapture& process, const ChainVerdict& verdict) {
  return ChainSentence(process, verdict).steps();
}

std::string chainText(const ProcessCapture& process, const ChainVerdict& verdict,
                      const std::string& forAmount) {
  return ChainSentence(process, verdict).text(forAmount);
}

}  // namespace kelvane
