#include "kelvane/verdict/chain_verdict.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "kelvane/timeline/cpu_runs.h"
#include "kelvane/verdict/chain_sentence.h"
#include "kelvane/verdict/kernel_wait.h"
#include "kelvane/verdict/syscall_names.h"
#include "kelvane/verdict/wakers.h"

namespace kelvane {
namespace {

/// From this share of the known time on, a state is what the thread was in.
constexpr double kMostOfIt = 0.5;

/// A thread that is always ready computes if it had at least this share of a CPU while it was watched: on a
/// machine with much to do it shares one with others.
constexpr double kLeastCpuShare = 0.05;

bool isMost(uint64_t partNs, uint64_t wholeNs) {
  return wholeNs > 0 && static_cast<double>(partNs) >= kMostOfIt * static_cast<double>(wholeNs);
}

bool isEnough(const PartyWatch& watch) {
  return static_cast<double>(watch.ranNs) >= kLeastCpuShare * static_cast<double>(watch.watchedNs);
}

/// By two looks, some time apart.
ChainEnd endByLook(const ChainLink& last) {
  const ThreadFacts& facts = last.party.facts;
  const PartyWatch watch = last.watch.value_or(PartyWatch{});
  if (watch.frozen) return ChainEnd::frozen;
  const char* call = facts.syscall ? syscallName(facts.syscall->number) : nullptr;
  switch (facts.state) {
    case 'R':
      if (watch.throttled && !isEnough(watch)) return ChainEnd::throttled;
      if (watch.moved || watch.watchedNs == 0 || isEnough(watch)) return ChainEnd::computed;
      return ChainEnd::starved;
    case 'T':
    case 't':
      return ChainEnd::stopped;
    case 'D':
      return isForDisk(kernelWait(facts)) ? ChainEnd::disk : ChainEnd::kernel;
    case 'Z':
    case 'X':
    case '?':
      return ChainEnd::ended;
    default:
      break;
  }
  return call && std::string_view(call).find("nanosleep") != std::string_view::npos ? ChainEnd::slept
                                                                                    : ChainEnd::waited;
}

}  // namespace

std::optional<NamedThread> competitor(const Evidence& evidence, const std::vector<StateSpan>& spans,
                                      int32_t tid) {
  std::vector<StateSpan> runnable;
  int32_t lastCpu = -1;
  for (StateSpan span : spans) {
    // What still waits at the end waits for the CPU that it ran on last.
    if (span.cpu == -1) span.cpu = lastCpu;
    lastCpu = span.cpu;
    const bool isInside = span.toNs > evidence.fromNs && span.fromNs < evidence.toNs;
    if (span.state == ThreadState::runnable && span.cpu != -1 && isInside) runnable.push_back(span);
  }
  std::unordered_map<int32_t, uint64_t> times;
  std::unordered_map<uint16_t, size_t> nextOfCpu;  // each CPU's runs ascend, as do the spans
  visitCpuRuns(evidence.recording, [&](const CpuRun& run) {
    const uint64_t from = std::max(run.fromNs, evidence.fromNs);
    const uint64_t to = std::min(run.toNs, evidence.toNs);
    if (run.tid == 0 || run.tid == tid || from >= to) return;
    size_t& next = nextOfCpu[run.cpu];
    while (next < runnable.size() && runnable[next].toNs <= from) next++;
    for (size_t i = next; i < runnable.size() && runnable[i].fromNs < to; i++) {
      if (runnable[i].cpu == run.cpu)
        times[run.tid] += sharedNs(from, to, runnable[i].fromNs, runnable[i].toNs);
    }
  });
  const auto most =
      std::max_element(times.begin(), times.end(), [](auto& a, auto& b) { return a.second < b.second; });
  if (most == times.end() || most->second == 0) return std::nullopt;
  return namedThread(evidence, most->first);
}

namespace {

/// Where the recorder knows how the last one spent the hang, that counts for more than how it was found.
void addRecorded(const Evidence& evidence, ChainVerdict& verdict) {
  const ThreadFacts& facts = verdict.chain.links.back().party.facts;
  const auto spans = threadTimeline(evidence.recording, facts.tid, facts.state);
  const TimeByState spent = timeByState(spans, evidence.fromNs, evidence.toNs);
  const auto in = [&](ThreadState state) { return spent[static_cast<size_t>(state)]; };
  const uint64_t windowNs = evidence.toNs - evidence.fromNs;
  const uint64_t knownNs = windowNs - std::min(windowNs, in(ThreadState::unknown));
  const bool isAwake = verdict.end == ChainEnd::computed || verdict.end == ChainEnd::starved;
  if (!isAwake || !isMost(knownNs, windowNs)) return;
  const uint64_t awakeNs = in(ThreadState::running) + in(ThreadState::runnable);
  if (!isMost(awakeNs, knownNs)) return;
  verdict.end = isMost(in(ThreadState::runnable), awakeNs) ? ChainEnd::starved : ChainEnd::computed;
  if (verdict.end != ChainEnd::starved) return;
  // Whoever ran then did not keep it from running.
  if (verdict.chain.links.back().watch.value_or(PartyWatch{}).throttled) verdict.end = ChainEnd::throttled;
  if (verdict.end == ChainEnd::starved) verdict.ranInstead = competitor(evidence, spans, facts.tid);
}

Cause causeByKind(WaitKind kind) {
  switch (kind) {
    case WaitKind::peer:
      return Cause::peer;
    case WaitKind::child:
      return Cause::child;
    case WaitKind::fileLock:
      return Cause::fileLock;
    case WaitKind::network:
      return Cause::network;
    case WaitKind::server:
      return Cause::server;
    case WaitKind::events:
      return Cause::sleeping;
    default:
      return Cause::lock;
  }
}

}  // namespace

std::optional<ChainVerdict> chainVerdict(const Evidence& evidence, const WaitGraph& waits) {
  ChainVerdict verdict{
      chainFrom(waits, evidence.process.hungThread), ThreadState::sleeping, ChainEnd::waited, {}, {}};
  const auto& links = verdict.chain.links;
  if (links.empty() || !links.front().wait) return std::nullopt;
  if (links.front().party.facts.state == 'D') verdict.state = ThreadState::uninterruptible;
  if (links.front().wait->kind == WaitKind::tracer) verdict.state = ThreadState::stopped;
  if (verdict.chain.deadlockFrom) {
    verdict.end = ChainEnd::deadlock;
  } else {
    verdict.end = endByLook(links.back());
    addRecorded(evidence, verdict);
  }
  verdict.steps = chainSteps(evidence.process, verdict);
  return verdict;
}

bool tellsMore(const ChainVerdict& verdict) {
  const auto& wait = verdict.chain.links.front().wait;
  const bool isNamed = wait && wait->kind != WaitKind::signal && wait->kind != WaitKind::events;
  // Who waits for events himself keeps nobody from those that were merely guessed to be his.
  if (verdict.chain.sureness() == Sureness::guess && verdict.end == ChainEnd::waited) return false;
  return verdict.chain.leadsOn() || isNamed;
}

void addRival(const Evidence& evidence, ChainVerdict& verdict) {
  if (verdict.end != ChainEnd::starved || verdict.ranInstead || !evidence.watchRivals) return;
  const WaitParty& last = verdict.chain.links.back().party;
  const auto rivals = evidence.watchRivals(last.pid, last.facts.tid);
  if (!rivals || rivals->ranMs * 2 < rivals->watchedMs) return;
  NamedThread rival{rivals->busiest, rivals->name, 0, {}};
  if (evidence.findProcess) evidence.findProcess(rival);
  verdict.ranInstead = rival;
  verdict.steps = chainSteps(evidence.process, verdict);
}

bool tellsTracer(const ChainVerdict& verdict) {
  const auto& links = verdict.chain.links;
  const auto& wait = links.front().wait;
  return links.size() > 1 && wait && wait->kind == WaitKind::tracer;
}

Cause causeOfChain(const ChainVerdict& verdict) {
  if (verdict.cause) return *verdict.cause;
  const auto& links = verdict.chain.links;
  const bool isTraced = std::any_of(links.begin(), links.end(), [](const ChainLink& link) {
    return link.wait && link.wait->kind == WaitKind::tracer;
  });
  if (isTraced) return Cause::stopped;
  switch (verdict.end) {
    case ChainEnd::deadlock:
      return Cause::deadlock;
    case ChainEnd::starved: {
      const std::optional<int> other = verdict.ranInstead ? verdict.ranInstead->priority : std::nullopt;
      return other && *other < links.back().party.facts.priority ? Cause::priorityInversion : Cause::starved;
    }
    case ChainEnd::throttled:
      return Cause::throttled;
    case ChainEnd::frozen:
      return Cause::frozen;
    case ChainEnd::stopped:
      return Cause::stopped;
    case ChainEnd::disk:
      return Cause::disk;
    default:
      break;
  }
  // The last wait that is known: what its holder does holds up everybody before.
  const auto last = std::find_if(links.rbegin(), links.rend(), [](const ChainLink& link) {
    return link.wait &&
           (link.holder || (link.wait->kind != WaitKind::signal && link.wait->kind != WaitKind::events));
  });
  return last == links.rend() ? Cause::sleeping : causeByKind(last->wait->kind);
}

}  // namespace kelvane
