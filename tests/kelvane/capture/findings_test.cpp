#include "kelvane/capture/findings.h"

#include <gtest/gtest.h>

#include "kelvane/base/limits.h"
#include "kelvane/capture/findings_area.h"

namespace kelvane {
namespace {

ProcessCapture onePart() {
  ProcessCapture part;
  part.pid = 7;
  part.comm = "viewer";
  part.hungThread = 9;
  part.threadCount = 2;
  ThreadCapture& thread = part.threads.emplace_back();
  thread.facts.tid = 9;
  thread.facts.comm = std::string("a\0b", 3);
  thread.facts.state = 'D';
  thread.facts.syscall = SystemCall{-1, {1, 2, 3, 4, 5, UINT64_MAX}};
  thread.facts.kernelStack = {"one", "two"};
  thread.stack = StackSample{11, 12, {0, 1, 0}, "cut"};
  part.samples = {{{1, 2, 3, true, 4, 5, false}, {1, 0}, {"futex_wait"}}};
  part.clockMarks = {{5, 6, 7, 8, 9}};
  part.frames = {{0x1000, 0, 0x10, "main"}, {0x2000, -1, 0, ""}};
  part.modules = {{"/bin/viewer", "beef"}};
  WaitParty& party = part.waits.parties.emplace_back(WaitParty{-3, "server", {}});
  party.facts.tid = 30;
  party.facts.priority = -51;
  part.waits.waits = {{9, kLastWaitKind, "a pipe", {{-3, 30, Sureness::guess, "evidence"}}}};
  part.waits.waits[0].hasMoreCandidates = true;
  part.waits.watches = {{30, true, false, true, 1, UINT64_MAX}};
  part.omissions = {{"what", "why"}};
  return part;
}

TEST(Findings, ComeThroughInPartsAsTheyWere) {
  ProcessCapture second;
  second.waits.parties.emplace_back().pid = 10;
  second.threads.emplace_back().facts.tid = 9;
  second.threads.back().noStack = "gone";
  second.threads.emplace_back().facts.tid = 10;
  ProcessCapture whole;
  ASSERT_TRUE(addFindings(encodeFindings(onePart()) + encodeFindings(second), whole));

  EXPECT_EQ(whole.pid, 7);
  EXPECT_EQ(whole.comm, "viewer");
  ASSERT_EQ(whole.waits.parties.size(), 2u);
  EXPECT_EQ(whole.waits.parties[0].facts.priority, -51);
  EXPECT_EQ(whole.waits.parties[1].pid, 10);
  ASSERT_EQ(whole.waits.waits.size(), 1u);
  EXPECT_EQ(whole.waits.waits[0].kind, kLastWaitKind);
  EXPECT_TRUE(whole.waits.waits[0].hasMoreCandidates);
  EXPECT_EQ(whole.waits.waits[0].holders[0].pid, -3);
  EXPECT_EQ(whole.waits.waits[0].holders[0].evidence, "evidence");
  EXPECT_TRUE(whole.waits.watches[0].moved && whole.waits.watches[0].throttled);
  EXPECT_EQ(whole.waits.watches[0].ranNs, UINT64_MAX);
  ASSERT_EQ(whole.threads.size(), 2u);
  EXPECT_EQ(whole.threads[0].facts.comm.size(), 3u);
  EXPECT_EQ(whole.threads[0].facts.syscall, onePart().threads[0].facts.syscall);
  EXPECT_EQ(whole.threads[0].facts.kernelStack.size(), 2u);
  EXPECT_EQ(whole.threads[0].noStack, "gone");
  ASSERT_EQ(whole.samples.size(), 1u);
  EXPECT_EQ(whole.samples[0].times, (SampleTimes{1, 2, 3, true, 4, 5, false}));
  EXPECT_EQ(whole.samples[0].frames, (std::vector<uint32_t>{1, 0}));
  EXPECT_EQ(whole.samples[0].kernelFrames, (std::vector<std::string>{"futex_wait"}));
  EXPECT_EQ(whole.clockMarks[0].readyNs, 9u);
  ASSERT_TRUE(whole.threads[0].stack);
  EXPECT_EQ(whole.threads[0].stack->frames, (std::vector<uint32_t>{0, 1, 0}));
  EXPECT_EQ(whole.frames[1].module, -1);
  EXPECT_EQ(whole.modules[0].buildId, "beef");
  EXPECT_EQ(whole.omissions[0].why, "why");
}

/// What parses foreign files may have been taken over by them: it can lie, but it leads nobody astray.
TEST(Findings, BrokenBytesLeadNowhere) {
  const std::string bytes = encodeFindings(onePart());
  for (size_t length = 1; length < bytes.size(); length++) {
    ProcessCapture whole;
    EXPECT_FALSE(addFindings(bytes.substr(0, length), whole));
    EXPECT_TRUE(whole.threads.empty());
  }
  const auto refused = [](auto&& change) {
    ProcessCapture part = onePart();
    change(part);
    ProcessCapture whole;
    return !addFindings(encodeFindings(part), whole);
  };
  EXPECT_TRUE(refused([](ProcessCapture& part) { part.frames[0].module = 1; }));
  EXPECT_TRUE(refused([](ProcessCapture& part) { part.frames[0].module = -2; }));
  EXPECT_TRUE(refused([](ProcessCapture& part) { part.threads[0].stack->frames = {2}; }));
  EXPECT_TRUE(refused([](ProcessCapture& part) { part.samples[0].frames = {2}; }));
  ProcessCapture many;
  for (pid_t tid = 1; tid <= static_cast<pid_t>(kMaxThreadsListed) + 1; tid++)
    many.threads.emplace_back().facts.tid = tid;
  ProcessCapture whole;
  EXPECT_TRUE(addFindings(encodeFindings(many), whole));
  EXPECT_EQ(whole.threads.size(), kMaxThreadsListed);
}

TEST(Findings, AStackOfAnotherProcessKeepsItsOwnFrames) {
  ProcessCapture whole = onePart();
  whole.others.push_back({20, "server", {}});
  ThreadCapture& thread = whole.others[0].thread;
  thread.facts.tid = 21;
  ProcessCapture liar = onePart();  // speaks of a thread that it was not asked for
  addOther(liar, thread, whole);
  EXPECT_FALSE(thread.stack);
  EXPECT_EQ(whole.frames.size(), 2u);

  ProcessCapture parsed = onePart();
  parsed.threads[0].facts.tid = 21;
  parsed.modules[0].path = "/bin/server";
  addOther(parsed, thread, whole);
  ASSERT_TRUE(thread.stack);
  EXPECT_EQ(thread.stack->frames, (std::vector<uint32_t>{2, 3, 2}));
  EXPECT_EQ(whole.modules[static_cast<size_t>(whole.frames[2].module)].path, "/bin/server");
  EXPECT_EQ(whole.frames[3].module, -1);

  // Without the stack, whose frames would lead elsewhere.
  ProcessCapture again;
  ASSERT_TRUE(addFindings(encodeFindings(whole), again));
  ASSERT_EQ(again.others.size(), 1u);
  EXPECT_EQ(again.others[0].process, "server");
  EXPECT_FALSE(again.others[0].thread.stack);
}

TEST(Findings, AnAreaThatIsFullKeepsWhatFits) {
  FindingsArea area;
  ASSERT_TRUE(area);
  ProcessCapture part;
  part.omissions.push_back({"much", std::string(kMaxFindingsBytes / 3, 'x')});
  ProcessCapture two;
  for (int i = 0; i < 2; i++) area.publish(part);
  EXPECT_TRUE(area.addTo(two));
  for (int i = 0; i < 2; i++) area.publish(part);
  ProcessCapture cut;
  EXPECT_FALSE(area.addTo(cut));
  EXPECT_EQ(cut.omissions.size(), two.omissions.size());
}

}  // namespace
}  // namespace kelvane
