#include "kelvane/base/proc_text.h"

#include <gtest/gtest.h>

namespace kelvane {
namespace {

TEST(ProcText, StatOfACommandMadeToConfuse) {
  ProcStat stat =
      parseStat("42 (a) R (b\n) D 1 1 1 0 -1 2097216 1 2 3 4 150 25 0 0 20 0 1 0 99 0 0 0 0 0 140737\n")
          .value_or(ProcStat{});
  EXPECT_EQ(stat.comm, "a) R (b\n");
  EXPECT_EQ(stat.state, 'D');
  EXPECT_EQ(stat.flags, 2097216u);
  EXPECT_EQ(stat.userTicks, 150u);
  EXPECT_EQ(stat.systemTicks, 25u);
  EXPECT_EQ(stat.startStack, 140737u);
  for (const char* broken : {"", "42", "42 (x", "42 )x( S", "42 (x)", "42 (x) SS 1"}) {
    EXPECT_FALSE(parseStat(broken)) << broken;
  }
}

TEST(ProcText, StatusSyscallAndKernelStack) {
  EXPECT_EQ(parseStatusNumber("Tgid:\t7\nTracerPid:\t815\nx", "TracerPid"), 815u);
  EXPECT_EQ(parseStatusNumber("NoTgid:\t7\n", "Tgid"), 0u);
  EXPECT_EQ(parseInnerId("Tgid:\t7\nNSpid:\t815\t42\t3\nx"), 3);
  for (const char* here : {"", "NSpid:\t815\n", "NSpid:\t815\t", "NSpid:\t815\tx\n", "xNSpid:\t1\t2\n"}) {
    EXPECT_EQ(parseInnerId(here), 0) << here;
  }
  EXPECT_EQ(parseSyscall("202 0x1 0x80 0x7fffffffffffffff 0x7f\n"),
            (SystemCall{202, {1, 0x80, 0x7fffffffffffffff, 0x7f}}));
  EXPECT_EQ(parseSyscall("-1 0x7f 0x7f\n")->number, -1);
  EXPECT_FALSE(parseSyscall("running\n"));
  std::string stack =
      "[<0>] futex_do_wait+0x69/0x90\n[<0>] do_syscall_64+0x71/0x280 [mod]\nrubbish\n[<0>] cut";
  EXPECT_EQ(parseKernelStack(stack, 8),
            (std::vector<std::string>{"futex_do_wait+0x69/0x90", "do_syscall_64+0x71/0x280 [mod]", "cut"}));
  EXPECT_EQ(parseKernelStack(stack, 1).size(), 1u);
  EXPECT_EQ(parseOsReleaseName("NAME=X\nPRETTY_NAME=\"Linux 12\"\n"), "Linux 12");
  EXPECT_EQ(parseOsReleaseName("ID=y\nNAME='X'"), "X");
}

TEST(ProcText, AClockOfATimeNamespaceIsAheadOfTheKernels) {
  const std::string offsets = "monotonic        -300 250000000\nboottime         7         0\n";
  EXPECT_EQ(parseClockOffset(offsets, "monotonic"), -299'750'000'000);
  EXPECT_EQ(parseClockOffset(offsets, "boottime"), 7'000'000'000);
  for (const char* broken : {"", "boottime", "boottime 7", "boottime 7 x", "boottime 9223372037 0"}) {
    EXPECT_EQ(parseClockOffset(broken, "boottime"), 0) << broken;
  }
}

}  // namespace
}  // namespace kelvane
