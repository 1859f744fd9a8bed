#include "kelvane/capture/wait_look.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/futex_wait.h"
#include "kelvane/capture/peer.h"
#include "kelvane/waits/follow_waits.h"

namespace kelvane {
namespace {

/// How long a thread has had a CPU in all (the first figure of /proc/TID/schedstat).
uint64_t ranNs(int processDir, pid_t tid) {
  const FileText text = readFileAt(processDir, taskPath(tid, "schedstat").c_str(), kMaxProcFileBytes);
  unsigned long long ns = 0;
  return sscanf(text.text.c_str(), "%llu", &ns) == 1 ? ns : 0;
}

class Looker final : public WaitSource {
 public:
  Looker(const LookedAt& process, const Deadline& deadline, const PublishCapture& publish)
      : process_(process), deadline_(deadline), publish_(publish) {}

  std::optional<WaitParty> look(const WaitHolder& holder) override {
    const int dir = dirOf(holder.pid);
    if (dir < 0) return std::nullopt;
    auto facts = holder.pid == process_.pid ? knownFacts(holder.tid) : std::nullopt;
    if (!facts) facts = readThreadFacts(dir, holder.tid, omissions_);
    auto process = parseStat(readFileAt(dir, "stat", kMaxProcFileBytes).text);
    if (!facts || !process) return std::nullopt;
    parties_.push_back({holder.pid, process->comm, std::move(*facts)});
    return parties_.back();
  }

  std::optional<PartyWait> waitOf(const WaitParty& party) override {
    const int dir = dirOf(party.pid);
    if (dir < 0) return std::nullopt;
    if (auto wait = futexWait(dir, party)) return wait;
    auto peer = findPeer(dir, party.pid, party.facts, deadline_, omissions_);
    if (!peer) return std::nullopt;
    return PartyWait{party.facts.tid,
                     WaitKind::peer,
                     "a " + peer->through,
                     {{peer->pid, peer->pid, Sureness::likely, "it has the other end"}}};
  }

  bool isOver() const override { return deadline_.passed(); }

  /// Once the graph is there: tells who stands still and who moves.
  void watch(const WaitParty& hung) {
    parties_.insert(parties_.begin(), hung);
    std::vector<Moment> before;
    for (const WaitParty& party : parties_) before.push_back(momentOf(party));
    const timespec pause{0, std::chrono::nanoseconds(kWatchTime).count()};
    nanosleep(&pause, nullptr);
    ProcessCapture part;
    for (size_t i = 0; i < parties_.size(); i++) {
      const Moment after = momentOf(parties_[i]);
      if (!before[i].facts || !after.facts) continue;
      const bool moved = before[i].facts->voluntarySwitches != after.facts->voluntarySwitches ||
                         before[i].facts->state != after.facts->state ||
                         after.facts->syscall != parties_[i].facts.syscall;
      part.waits.watches.push_back({parties_[i].facts.tid, moved, false, false, after.atNs - before[i].atNs,
                                    after.ranNs - before[i].ranNs});
    }
    publish_(part);
  }

  void publishOmissions() {
    ProcessCapture part;
    part.omissions = std::move(omissions_);
    publish_(part);
  }

 private:
  struct Moment {
    std::optional<ThreadFacts> facts;
    uint64_t ranNs = 0;
    uint64_t atNs = 0;
  };

  Moment momentOf(const WaitParty& party) {
    const int dir = dirOf(party.pid);
    std::vector<Omission> known;
    return {readThreadFacts(dir, party.facts.tid, known), ranNs(dir, party.facts.tid), monotonicNs()};
  }

  std::optional<ThreadFacts> knownFacts(pid_t tid) const {
    const auto found = std::find_if(process_.threads.begin(), process_.threads.end(),
                                    [&](const ThreadFacts& facts) { return facts.tid == tid; });
    return found == process_.threads.end() ? std::nullopt : std::optional(*found);
  }

  int dirOf(pid_t pid) {
    if (pid == process_.pid) return process_.dir;
    const auto [known, isNew] = dirs_.try_emplace(pid);
    const std::string path = "/proc/" + std::to_string(pid);
    if (isNew) known->second = UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return known->second.get();
  }

  const LookedAt& process_;
  const Deadline& deadline_;
  const PublishCapture& publish_;
  std::map<pid_t, UniqueFd> dirs_;  // each stays bound to the process that it was opened for
  std::vector<WaitParty> parties_;
  std::vector<Omission> omissions_;
};

}  // namespace

void lookAtWaits(const LookedAt& process, const Deadline& deadline, const PublishCapture& publish) {
  if (process.threads.empty()) return;
  const WaitParty hung{process.pid, process.name, process.threads.front()};
  Looker looker(process, deadline, publish);
  bool isAny = false;
  const auto publishWaits = [&](const WaitGraph& part) {
    isAny = isAny || !part.waits.empty();
    ProcessCapture whole;
    whole.waits = part;
    publish(whole);
  };
  if (!followWaits(hung, looker, publishWaits)) {
    ProcessCapture part;
    part.omissions.push_back({"who waits for whom", "there is more than was followed"});
    publish(part);
  }
  looker.publishOmissions();
  if (isAny && !deadline.passed()) looker.watch(hung);
}

}  // namespace kelvane
