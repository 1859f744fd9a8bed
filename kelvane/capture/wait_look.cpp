#include "kelvane/capture/wait_look.h"

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <map>
#include <string>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/call_watch.h"
#include "kelvane/capture/child_wait.h"
#include "kelvane/capture/descriptor_index.h"
#include "kelvane/capture/descriptor_wait.h"
#include "kelvane/capture/file_lock.h"
#include "kelvane/capture/futex_wait.h"
#include "kelvane/capture/likely_thread.h"
#include "kelvane/capture/server_wait.h"
#include "kelvane/capture/surroundings.h"
#include "kelvane/capture/thread_process.h"
#include "kelvane/capture/wait_time.h"
#include "kelvane/waits/follow_waits.h"

namespace kelvane {
namespace {

void pause(std::chrono::nanoseconds time) {
  const timespec length{0, time.count()};
  nanosleep(&length, nullptr);
}

class Looker final : public WaitSource {
 public:
  Looker(const LookedAt& process, const Deadline& deadline, const PublishCapture& publish)
      : process_(process), deadline_(deadline), publish_(publish), index_(process.pid, deadline) {}

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
    auto wait = tracerWait(party);
    if (!wait) wait = futexWait(dir, party, threads_);
    if (!wait) wait = childWait(party);
    if (!wait) wait = fileLockWait(dir, party, index_);
    if (!wait) wait = serverWait(dir, party, index_);
    if (!wait) wait = descriptorWait(dir, party, waitingFor(party), index_, threads_, omissions_);
    if (!wait) wait = retriedWait(dir, party);
    if (wait) waits_.push_back(*wait);
    return wait;
  }

  bool isOver() const override { return deadline_.passed(); }

  /// Once the graph is there: tells who stands still and who moves.
  void watch(const WaitParty& hung) {
    parties_.insert(parties_.begin(), hung);
    std::vector<Moment> before;
    before.reserve(parties_.size());
    for (const WaitParty& party : parties_) before.push_back(momentOf(party));
    pause(kWatchTime);
    // Who shares a CPU with many has to wait for its turn.
    for (int more = 0; more < kMoreWatches && !deadline_.passed() && isTooEarly(before); more++)
      pause(kWatchTime);
    ProcessCapture part;
    for (size_t i = 0; i < parties_.size(); i++) {
      const Moment after = momentOf(parties_[i]);
      if (before[i].facts && after.facts)
        part.waits.watches.push_back(watchOf(parties_[i], before[i], after));
    }
    publish_(part);
  }

  std::map<pid_t, UniqueFd> takeDirs() { return std::move(dirs_); }

  void publishOmissions() {
    ProcessCapture part;
    if (const size_t left = index_.leftOut(); left > 0)
      omissions_.push_back(
          {"who has what open", std::to_string(left) + " processes were not searched for it"});
    part.omissions = std::move(omissions_);
    publish_(part);
  }

 private:
  struct Moment {
    std::optional<ThreadFacts> facts;
    Surroundings around;
    uint64_t atNs = 0;

    uint64_t ranNs() const { return around.schedule.value_or(ScheduleFigures{}).ranNs; }
    uint64_t throttledNs() const { return around.limits.quota ? around.limits.quota->throttledNs : 0; }
  };

  static std::optional<PartyWait> tracerWait(const WaitParty& party) {
    if (party.facts.state != 't' || party.facts.tracerPid == 0) return std::nullopt;
    // It is the very thread that traces, whatever proc(5) calls it.
    const pid_t tracer = party.facts.tracerPid;
    PartyWait wait{party.facts.tid, WaitKind::tracer, {}, {}};
    if (const pid_t process = processOf(tracer); process > 0)
      wait.holders = {WaitHolder{process, tracer, Sureness::certain, "TracerPid"}};
    return wait;
  }

  /// Of one who only sleeps, and not for long: what it tries between its sleeps.
  std::optional<PartyWait> retriedWait(int dir, WaitParty party) {
    if (!party.facts.syscall || !onlySleeps(*party.facts.syscall)) return std::nullopt;
    const uint64_t sleepNs = timeLeftNs(party);
    const auto longest = std::min(kTryWatch, triesLeft_);
    // Two tries have to fit, with a sleep before each.
    if (sleepNs == 0 || std::chrono::nanoseconds(sleepNs) > std::min(kMaxTrySleep, longest / 2))
      return std::nullopt;
    const uint64_t begunNs = monotonicNs();
    int error = 0;
    party.facts.syscall = awaitRepeatedTry(party.facts.tid, longest, error);
    triesLeft_ -= std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::nanoseconds(monotonicNs() - begunNs));
    if (error != 0) omissions_.push_back({"what a thread tries between its sleeps", errorText(error)});
    if (!party.facts.syscall) return std::nullopt;
    auto wait = childWait(party);
    if (!wait) wait = fileLockTry(dir, party, index_);
    if (wait) wait->isRetried = true;
    return wait;
  }

  Moment momentOf(const WaitParty& party) {
    std::vector<Omission> known;
    auto facts = readThreadFacts(dirOf(party.pid), party.facts.tid, known);
    return {std::move(facts), readSurroundings(party.pid, party.facts.tid), monotonicNs()};
  }

  static PartyWatch watchOf(const WaitParty& party, const Moment& before, const Moment& after) {
    PartyWatch watch;
    watch.tid = party.facts.tid;
    watch.moved = before.facts->voluntarySwitches != after.facts->voluntarySwitches ||
                  before.facts->state != after.facts->state ||
                  !isStillIn(party.facts.syscall, after.facts->syscall);
    watch.frozen = !after.around.limits.frozen.empty();
    watch.throttled = after.throttledNs() > before.throttledNs();
    watch.watchedNs = after.atNs - before.atNs;
    watch.ranNs = after.ranNs() - before.ranNs();
    return watch;
  }

  /// Whether somebody is ready to run and hasn't since, or may be held back by its control group, which the
  /// kernel counts when it lets that go on again.
  bool isTooEarly(const std::vector<Moment>& before) const {
    for (size_t i = 0; i < parties_.size(); i++) {
      if (!before[i].facts || before[i].facts->state != 'R') continue;
      const Surroundings now = readSurroundings(parties_[i].pid, parties_[i].facts.tid);
      const uint64_t throttledNs = now.limits.quota ? now.limits.quota->throttledNs : 0;
      if (now.schedule && now.schedule->ranNs == before[i].ranNs()) return true;
      if (throttledNs > 0 && throttledNs == before[i].throttledNs()) return true;
    }
    return false;
  }

  /// The processes that wait for this one, as far as the graph goes, and those for whom they wait.
  std::vector<pid_t> waitingFor(const WaitParty& party) const {
    std::vector<pid_t> pids = {process_.pid};
    for (const PartyWait& wait : waits_) {
      for (const WaitHolder& holder : wait.holders) {
        if (holder.pid != party.pid) pids.push_back(holder.pid);
      }
    }
    return pids;
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
  DescriptorIndex index_;
  ThreadLists threads_;
  std::vector<WaitParty> parties_;
  std::vector<PartyWait> waits_;
  std::vector<Omission> omissions_;
  std::chrono::milliseconds triesLeft_ = kAllTriesWatch;
};

}  // namespace

LookedWaits lookAtWaits(const LookedAt& process, const Deadline& deadline, const PublishCapture& publish) {
  if (process.threads.empty()) return {};
  const WaitParty hung{process.pid, process.name, process.threads.front()};
  Looker looker(process, deadline, publish);
  WaitGraph graph;
  const auto publishWaits = [&](const WaitGraph& part) {
    graph.parties.insert(graph.parties.end(), part.parties.begin(), part.parties.end());
    graph.waits.insert(graph.waits.end(), part.waits.begin(), part.waits.end());
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
  if (!graph.waits.empty() && !deadline.passed()) looker.watch(hung);
  return {std::move(graph), looker.takeDirs()};
}

}  // namespace kelvane
