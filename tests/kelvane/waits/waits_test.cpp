#include <gtest/gtest.h>

#include <map>

#include "kelvane/base/limits.h"
#include "kelvane/waits/follow_waits.h"
#include "kelvane/waits/wait_chain.h"

namespace kelvane {
namespace {

/// Threads with made-up waits; each is of a process of its own.
class MadeUpThreads final : public WaitSource {
 public:
  void waits(pid_t tid, WaitKind kind, std::vector<pid_t> holders, Sureness sureness = Sureness::certain) {
    PartyWait wait{tid, kind, {}, {}};
    for (const pid_t holder : holders) wait.holders.push_back({holder, holder, sureness, "it says so"});
    waits_[tid] = wait;
  }
  void hasGone(pid_t tid) { gone_ = tid; }
  void mayLook(int times) { looksLeft_ = times; }
  void moves(pid_t tid) { moving_ = tid; }

  std::optional<WaitParty> look(const WaitHolder& holder) override {
    looksLeft_--;
    return holder.tid == gone_ ? std::nullopt : std::optional(party(holder.tid));
  }
  std::optional<PartyWait> waitOf(const WaitParty& party) override {
    const auto found = waits_.find(party.facts.tid);
    return found == waits_.end() ? std::nullopt : std::optional(found->second);
  }
  bool isOver() const override { return looksLeft_ <= 0; }

  WaitGraph graph() {
    WaitGraph graph;
    whole_ = followWaits(party(1), *this, [&](const WaitGraph& part) {
      graph.parties.insert(graph.parties.end(), part.parties.begin(), part.parties.end());
      graph.waits.insert(graph.waits.end(), part.waits.begin(), part.waits.end());
    });
    for (const WaitParty& one : graph.parties)
      graph.watches.push_back({one.facts.tid, one.facts.tid == moving_, false, false, 1, 0});
    return graph;
  }
  /// "1 2 3", and "1 2 3 > 2" where the last one waits for 2 and none of them goes on.
  std::string way() {
    const WaitChain chain = chainFrom(graph(), 1);
    std::string text;
    for (const ChainLink& link : chain.links)
      text += (text.empty() ? "" : " ") + std::to_string(link.party.pid);
    if (chain.deadlockFrom) text += " > " + std::to_string(chain.links[*chain.deadlockFrom].party.pid);
    return text;
  }
  bool wasWhole() const { return whole_; }

 private:
  static WaitParty party(pid_t tid) {
    WaitParty made{tid, "process", {}};
    made.facts.tid = tid;
    return made;
  }

  std::map<pid_t, PartyWait> waits_;
  pid_t gone_ = 0;
  pid_t moving_ = 0;
  int looksLeft_ = 1'000;
  bool whole_ = false;
};

TEST(Waits, LeadFromHolderToHolderToTheEnd) {
  MadeUpThreads threads;
  EXPECT_EQ(threads.way(), "1");
  threads.waits(1, WaitKind::lock, {2});
  threads.waits(2, WaitKind::peer, {9, 3, 4}, Sureness::likely);
  threads.waits(3, WaitKind::signal, {});
  threads.hasGone(9);
  EXPECT_EQ(threads.way(), "1 2 3");
  EXPECT_TRUE(threads.wasWhole());
  EXPECT_EQ(chainFrom(threads.graph(), 1).sureness(), Sureness::likely);
  EXPECT_TRUE(chainFrom(threads.graph(), 77).links.empty());
}

TEST(Waits, ACircleIsADeadlockIfNobodyInItCanGoOn) {
  MadeUpThreads threads;
  threads.waits(1, WaitKind::lock, {2});
  threads.waits(2, WaitKind::lock, {3});
  threads.waits(3, WaitKind::peer, {2});
  EXPECT_EQ(threads.way(), "1 2 3 > 2");
  threads.moves(1);  // which stands before the circle
  EXPECT_EQ(threads.way(), "1 2 3 > 2");
  threads.moves(3);  // it was only seen in that wait between others
  EXPECT_EQ(threads.way(), "1 2 3");
  threads.moves(0);
  threads.waits(3, WaitKind::peer, {2}, Sureness::likely);
  EXPECT_EQ(threads.way(), "1 2 3");
  threads.waits(3, WaitKind::peer, {2, 8});  // somebody else can end it
  EXPECT_EQ(threads.way(), "1 2 3");
  threads.waits(3, WaitKind::fileLock, {2}, Sureness::likely);  // its process has the lock, and other threads
  EXPECT_EQ(threads.way(), "1 2 3");
  threads.waits(2, WaitKind::fileLock, {3});
  EXPECT_EQ(threads.way(), "1 2 3 > 2");
  threads.waits(3, WaitKind::fileLock, {2}, Sureness::guess);
  EXPECT_EQ(threads.way(), "1 2 3");
  threads.waits(1, WaitKind::lock, {1});
  EXPECT_EQ(threads.way(), "1 > 1");
}

TEST(Waits, AreFollowedSoFarAndNoFurther) {
  MadeUpThreads deep;
  for (pid_t tid = 1; tid < 100; tid++) deep.waits(tid, WaitKind::lock, {tid + 1});
  EXPECT_EQ(deep.graph().parties.size(), kMaxWaitDepth + 1);
  EXPECT_FALSE(deep.wasWhole());
  deep.mayLook(2);
  EXPECT_EQ(deep.graph().parties.size(), 3u);

  MadeUpThreads wide;
  std::vector<pid_t> everybody;
  for (pid_t tid = 2; tid < 5'000; tid++) everybody.push_back(tid);
  for (pid_t tid = 1; tid < 100; tid++) wide.waits(tid, WaitKind::peer, everybody);
  wide.waits(2, WaitKind::peer, {1'001, 1'002, 1'003, 1'004});
  for (pid_t tid = 1'001; tid < 1'005; tid++)
    wide.waits(tid, WaitKind::peer, {tid * 10, tid * 10 + 1, tid * 10 + 2, tid * 10 + 3});
  EXPECT_EQ(waitOf(wide.graph(), 1)->holders.size(), kMaxWaitHolders);
  EXPECT_LE(wide.graph().parties.size(), kMaxWaitParties);
}

}  // namespace
}  // namespace kelvane
