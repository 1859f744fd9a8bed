#include "kelvane/threads/memory_map.h"

#include <gtest/gtest.h>

namespace kelvane {
namespace {

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
