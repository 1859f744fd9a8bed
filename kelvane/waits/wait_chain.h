#pragma once

#include <optional>
#include <vector>

#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// A party on the way.
struct ChainLink {
  WaitParty party;
  std::optional<PartyWait> wait;     // nothing: it waits for nothing that is known
  std::optional<WaitHolder> holder;  // the next link's party; nothing: it is the last
  std::optional<PartyWatch> watch;

  /// Whether it was where it was found for as long as it was watched.
  bool hasStayed() const { return watch && !watch->moved; }
};

/// The way from the hung thread to whoever keeps it waiting.
struct WaitChain {
  std::vector<ChainLink> links;  // the hung thread's first; empty if it is not in the graph
  /// The last link waits for this one, and so do all between for the next: none of them goes on any more.
  std::optional<size_t> deadlockFrom;

  bool leadsOn() const { return links.size() > 1 || deadlockFrom; }
  Sureness sureness() const;  // of its least sure step
};

/// Of several holders of one wait the first counts that the graph knows.
WaitChain chainFrom(const WaitGraph& graph, pid_t hungThread);

}  // namespace kelvane
