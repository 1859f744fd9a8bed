#include "tools/memory/memory_diff.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <tuple>

namespace quorvelctl {
namespace {

class Changes {
 public:
  void addOld(const std::string& name, int64_t bytes) {
    MemoryChange& change = byName_[name];
    change.oldBytes += bytes;
    ++change.oldCount;
  }

  void addNew(const std::string& name, int64_t bytes) {
    MemoryChange& change = byName_[name];
    change.newBytes += bytes;
    ++change.newCount;
  }

  std::vector<MemoryChange> largestFirst() const {
    std::vector<MemoryChange> changes;
    for (const auto& [name, change] : byName_) {
      if (change.bytes() == 0 && change.oldCount == change.newCount) continue;
      changes.push_back(change);
      changes.back().name = name;
    }
    std::sort(changes.begin(), changes.end(), [](const MemoryChange& a, const MemoryChange& b) {
      const int64_t aBytes = std::abs(a.bytes());
      const int64_t bBytes = std::abs(b.bytes());
      return std::tie(bBytes, a.name) < std::tie(aBytes, b.name);
    });
    return changes;
  }

 private:
  std::map<std::string, MemoryChange> byName_;
};

std::vector<MemoryChange> changesOf(const std::vector<NamedBytes>& older,
                                    const std::vector<NamedBytes>& newer) {
  Changes changes;
  for (const NamedBytes& entry : older) changes.addOld(entry.name, static_cast<int64_t>(entry.bytes));
  for (const NamedBytes& entry : newer) changes.addNew(entry.name, static_cast<int64_t>(entry.bytes));
  return changes.largestFirst();
}

std::vector<MemoryChange> processChanges(const MemoryReport& older, const MemoryReport& newer) {
  Changes changes;
  for (const MemoryProcess& process : older.processes) {
    changes.addOld(process.name, static_cast<int64_t>(process.footprintBytes));
  }
  for (const MemoryProcess& process : newer.processes) {
    changes.addNew(process.name, static_cast<int64_t>(process.footprintBytes));
  }
  return changes.largestFirst();
}

std::vector<MemoryChange> accountChanges(const MemoryReport& older, const MemoryReport& newer) {
  const auto before = accountOf(older);
  const auto after = accountOf(newer);
  if (!before || !after) return {};
  Changes changes;
  for (const NamedBytes& part : before->parts) changes.addOld(part.name, static_cast<int64_t>(part.bytes));
  for (const NamedBytes& part : after->parts) changes.addNew(part.name, static_cast<int64_t>(part.bytes));
  changes.addOld(kUnaccounted, before->unaccountedBytes);
  changes.addNew(kUnaccounted, after->unaccountedBytes);
  return changes.largestFirst();
}

/// Those that both reports have.
std::vector<CounterChange> counterChanges(const MemoryReport& older, const MemoryReport& newer) {
  std::vector<CounterChange> changes;
  for (const auto& [name, value] : newer.counters) {
    const uint64_t before = older.counter(name).value_or(value);
    if (before != value) changes.push_back({name, before, value});
  }
  return changes;
}

}  // namespace

MemoryDiff diffOf(const MemoryReport& older, const MemoryReport& newer) {
  return {.account = accountChanges(older, newer),
          .processes = processChanges(older, newer),
          .zones = changesOf(older.zones, newer.zones),
          .uses = changesOf(older.uses, newer.uses),
          .consumers = changesOf(older.consumers, newer.consumers),
          .totals = changesOf(older.totals, newer.totals),
          .counters = counterChanges(older, newer)};
}

}  // namespace quorvelctl
