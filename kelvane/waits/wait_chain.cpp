#include "kelvane/waits/wait_chain.h"

#include <algorithm>
#include <array>
#include <span>

namespace kelvane {
namespace {

template <typename Items, typename IdOf>
auto* findById(const Items& items, pid_t tid, IdOf idOf) {
  const auto found =
      std::find_if(items.begin(), items.end(), [&](const auto& item) { return idOf(item) == tid; });
  return found == items.end() ? nullptr : &*found;
}

template <typename Item>
std::optional<Item> copyOf(const Item* item) {
  return item ? std::optional(*item) : std::nullopt;
}

std::optional<WaitHolder> knownHolder(const WaitGraph& graph, const std::optional<PartyWait>& wait) {
  if (!wait) return std::nullopt;
  const auto found = std::find_if(wait->holders.begin(), wait->holders.end(),
                                  [&](const WaitHolder& holder) { return partyOf(graph, holder.tid); });
  return found == wait->holders.end() ? std::nullopt : std::optional(*found);
}

bool isFileLock(const ChainLink& link) {
  return link.wait && link.wait->kind == WaitKind::fileLock;
}

/// Whether the link's party can't go on before its holder, of whom the next link is, does. Of a lock on a
/// file it is the holder's process that has it: the thread of that which waits for another such lock is as
/// good as its owner. Who tries and sleeps is free to go on.
bool isHeldFast(const ChainLink& link, const ChainLink& next) {
  const Sureness least = isFileLock(link) && isFileLock(next) ? Sureness::likely : Sureness::certain;
  return link.holder && link.holder->sureness <= least && link.wait->holders.size() == 1 &&
         !link.wait->isRetried && link.hasStayed();
}

bool isDeadlock(std::span<const ChainLink> circle) {
  for (size_t i = 0; i < circle.size(); i++) {
    if (!isHeldFast(circle[i], circle[(i + 1) % circle.size()])) return false;
  }
  return true;
}

}  // namespace

const char* waitKindName(WaitKind kind) {
  constexpr std::array<const char*, 13> kNames = {
      "lock",   "read-write lock", "readers",   "stream lock", "end of a thread", "signal", "peer",
      "events", "child",           "file lock", "network",     "server",          "tracer"};
  static_assert(kNames.size() == static_cast<size_t>(kLastWaitKind) + 1);
  return kNames[static_cast<size_t>(kind)];
}

const char* surenessName(Sureness sureness) {
  return sureness == Sureness::certain ? "certain" : sureness == Sureness::likely ? "likely" : "guess";
}

const WaitParty* partyOf(const WaitGraph& graph, pid_t tid) {
  return findById(graph.parties, tid, [](const WaitParty& party) { return party.facts.tid; });
}

const PartyWait* waitOf(const WaitGraph& graph, pid_t tid) {
  return findById(graph.waits, tid, [](const PartyWait& wait) { return wait.tid; });
}

const PartyWatch* watchOf(const WaitGraph& graph, pid_t tid) {
  return findById(graph.watches, tid, [](const PartyWatch& watch) { return watch.tid; });
}

Sureness WaitChain::sureness() const {
  Sureness least = Sureness::certain;
  for (const ChainLink& link : links) {
    if (link.holder) least = std::max(least, link.holder->sureness);
  }
  return least;
}

WaitChain chainFrom(const WaitGraph& graph, pid_t hungThread) {
  WaitChain chain;
  for (const WaitParty* party = partyOf(graph, hungThread); party;) {
    const pid_t tid = party->facts.tid;
    ChainLink& link = chain.links.emplace_back(
        ChainLink{*party, copyOf(waitOf(graph, tid)), std::nullopt, copyOf(watchOf(graph, tid))});
    link.holder = knownHolder(graph, link.wait);
    if (!link.holder) break;
    const auto before = std::find_if(chain.links.begin(), chain.links.end(), [&](const ChainLink& one) {
      return one.party.facts.tid == link.holder->tid;
    });
    party = partyOf(graph, link.holder->tid);
    if (before == chain.links.end()) continue;
    if (isDeadlock({before, chain.links.end()})) {
      chain.deadlockFrom = static_cast<size_t>(before - chain.links.begin());
    } else {
      link.holder.reset();  // two moments that don't belong together, or a wait that others can end too
    }
    break;
  }
  return chain;
}

}  // namespace kelvane
