#include "kelvane/waits/follow_waits.h"

#include <deque>
#include <unordered_set>
#include <utility>

#include "kelvane/base/limits.h"

namespace kelvane {

bool followWaits(const WaitParty& hung, WaitSource& source, const PublishWaits& publish) {
  std::deque<std::pair<WaitParty, size_t>> pending = {{hung, 0}};
  std::unordered_set<pid_t> seen = {hung.facts.tid};
  publish({{hung}, {}, {}});
  for (; !pending.empty(); pending.pop_front()) {
    if (source.isOver()) return false;
    const auto& [party, depth] = pending.front();
    auto wait = source.waitOf(party);
    if (!wait) continue;
    if (wait->holders.size() > kMaxWaitHolders) wait->holders.resize(kMaxWaitHolders);
    publish({{}, {*wait}, {}});
    for (const WaitHolder& holder : wait->holders.empty() ? wait->candidates : wait->holders) {
      if (seen.contains(holder.tid)) continue;
      if (depth == kMaxWaitDepth || seen.size() == kMaxWaitParties || source.isOver()) return false;
      auto next = source.look(holder);
      if (!next) continue;
      seen.insert(holder.tid);
      publish({{*next}, {}, {}});
      pending.emplace_back(std::move(*next), depth + 1);
    }
  }
  return true;
}

}  // namespace kelvane
