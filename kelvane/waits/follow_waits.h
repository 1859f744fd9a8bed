#pragma once

#include <functional>
#include <optional>

#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// Where a graph comes from: what can be seen of threads.
class WaitSource {
 public:
  virtual ~WaitSource() = default;

  /// A thread as it is now; nothing if it has gone or can't be seen.
  virtual std::optional<WaitParty> look(const WaitHolder& holder) = 0;
  /// What the party waits for; nothing if it doesn't, or if that can't be told.
  virtual std::optional<PartyWait> waitOf(const WaitParty& party) = 0;
  /// No further look is to be taken.
  virtual bool isOver() const = 0;
};

/// Takes over a part of the graph that has been found: any call of the source may be the last.
using PublishWaits = std::function<void(const WaitGraph& part)>;

/// Follows the waits from `hung` on, nearest first, up to the limits. True if it went all the way.
bool followWaits(const WaitParty& hung, WaitSource& source, const PublishWaits& publish);

}  // namespace kelvane
