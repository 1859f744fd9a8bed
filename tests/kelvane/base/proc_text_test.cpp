#include "kelvane/base/proc_text.h"

#include <gtest/gtest.h>

#include "kelvane/threads/memory_map.h"

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

/// One library around its bss, a second copy of it, a file that is only data, and the vDSO, in pieces of
/// every size.
TEST(MemoryMap, MappingsBecomeModulesHoweverTheTextIsCut) {
  const std::string text =
      "1000-2000 r--p 00000000 08:01 5 /lib/a\\012b.so\n"
      "2000-4000 r-xp 00001000 08:01 5 /lib/a\\012b.so\n"
      "4000-5000 rw-p 00000000 00:00 0 \n"
      "5000-6000 rw-p 00003000 08:01 5 /lib/a\\012b.so\n"
      "6000-7000 r-xp 00000000 08:01 5 /lib/a\\012b.so\n"
      "8000-9000 r--s 00000000 08:01 9 /data\n"
      "broken line\n"
      "f000-e000 r-xp 00000000 08:01 9 /backwards\n"
      "9000-a000 r-xp 00000000 00:00 0 [vdso]\n"
      "b000-c000 r-xp 00000000 00:00 0 \n";
  for (size_t piece = 1; piece <= text.size(); piece += 7) {
    MemoryMapParser parser;
    for (size_t at = 0; at < text.size(); at += piece) parser.feed(std::string_view(text).substr(at, piece));
    auto modules = parser.finish();
    ASSERT_EQ(modules.size(), 3u);
    EXPECT_EQ(modules[0].path, "/lib/a\nb.so");
    EXPECT_EQ(modules[0].start, 0x1000u);
    EXPECT_EQ(modules[0].firstEnd, 0x2000u);
    EXPECT_EQ(modules[0].end, 0x6000u);
    EXPECT_EQ(modules[1].start, 0x6000u);
    EXPECT_TRUE(modules[2].isVdso());
  }
}

}  // namespace
}  // namespace kelvane
