#include "platform/linux/memory/kernel_memory_text.h"

#include <gtest/gtest.h>

#include "platform/linux/memory/fork_shares.h"

// The kernel's texts about its memory: as captured, cut short, and made up by somebody who means ill.

namespace quorveld::linux_platform {
namespace {

TEST(KernelMemoryText, SlabInfo) {
  const std::string header =
      "slabinfo - version: 2.1\n"
      "# name            <active_objs> <num_objs> <objsize> <objperslab> <pagesperslab> : "
      "tunables <limit> <batchcount> <sharedfactor> : slabdata <active_slabs> <num_slabs> <sharedavail>\n";
  const auto caches =
      parseSlabInfo(header +
                        "kmalloc-8k            68     72   8192    4    8 : tunables    0    0    0 : "
                        "slabdata     18     18      0\n"
                        "broken line\n"
                        "huge 1 1 1 1 18446744073709551615 : tunables 0 0 0 : slabdata 1 2 0\n"
                        "cut 1 2 3",
                    4096);
  ASSERT_TRUE(caches.has_value());
  ASSERT_EQ(caches->size(), 2u);
  EXPECT_EQ((*caches)[0].name, "kmalloc-8k");
  EXPECT_EQ((*caches)[0].objectCount, 72u);
  EXPECT_EQ((*caches)[0].objectBytes, 8192u);
  EXPECT_EQ((*caches)[0].sizeBytes, 18u * 8 * 4096);
  EXPECT_EQ((*caches)[1].sizeBytes, UINT64_MAX);
  EXPECT_EQ(parseSlabInfo(header, 4096)->size(), 0u);
  EXPECT_EQ(parseSlabInfo("", 4096), std::nullopt);
  EXPECT_EQ(parseSlabInfo("slabinfo - version: 9.0\n", 4096), std::nullopt);
}

TEST(KernelMemoryText, MemInfoAndModules) {
  const char* text =
      "MemTotal:       24684092 kB\nSlab:              85152 kB\nSlabby: 1 kB\nBad:\nNegative: -4 kB\n";
  EXPECT_EQ(memInfoBytes(text, "Slab"), 85152u * 1024);
  EXPECT_EQ(memInfoBytes(text, "Sla"), std::nullopt);
  EXPECT_EQ(memInfoBytes(text, "Bad"), std::nullopt);
  EXPECT_EQ(memInfoBytes(text, "Negative"), std::nullopt);
  EXPECT_EQ(memInfoBytes("", "Slab"), std::nullopt);

  const auto modules =
      parseModules("ext4 1146880 1 - Live 0xffffffffc0a3e000\nnothing\n\nnvme 57344 3 - Live 0x0 (E)");
  ASSERT_EQ(modules.size(), 2u);
  EXPECT_EQ(modules[1].name, "nvme");
  EXPECT_EQ(modules[1].sizeBytes, 57344u);
}

TEST(KernelMemoryText, VmallocInfoIsSummedByCaller) {
  VmallocCallers sums(4096);
  sums.add(
      "0x000000000ad9390b-0x00000000754ae7ea   20480 irq_init_percpu_irqstack+0xca/0x100 vmap\n"
      "0x00000000754ae7ea-0x00000000b79cb469    8192 acpi_os_map_iomem+0x1bc/0x1e0 "
      "phys=0x00000000000a0000 ioremap\n"
      "0x00000000525d5f57-0x0000000002d88c03   20480 kernel_clone+0x94/0x3e0 pages=4 vmalloc N0=4\n"
      "0x00000000525d5f57-0x0000000002d88c03   20480 big+0x1/0x2 [module] pages=100 vmalloc vpages N0=100\n");
  sums.add(
      "0x00000000525d5f57-0x0000000002d88c03   20480 kernel_clone+0x97/0x3e0 pages=5 vmalloc N0=4\n"
      "0x00000000525d5f57-0x0000000002d88c03   20480 liar+0x97/0x3e0 pages=-5 vmalloc\n"
      "0x00000000525d5f57-0x0000000002d88c03   20480 vm_map_ram\n0x");
  const auto callers = sums.largestFirst();
  ASSERT_EQ(callers.size(), 2u);
  EXPECT_EQ(callers[0].name, "big");
  EXPECT_EQ(callers[1].name, "kernel_clone");
  EXPECT_EQ(callers[1].sizeBytes, 9u * 4096);
}

TEST(KernelMemoryText, Zones) {
  const ZonePages zones = parseZoneInfo(
      "Node 0, zone      DMA\n  pages free     3840\n        spanned  4095\n"
      "        present  3998\n        managed  3840\n"
      "  pagesets\n    cpu: 0\n              count: 60\n              high:  5\n"
      "    cpu: 1\n              count:    3\n"
      "Node 0, zone   Normal\n        present  1000\n        managed  900\n"
      "Node 1, zone    DMA32\n        managed  50\n        present 7");
  EXPECT_EQ(zones.present, 3998u + 1000 + 7);
  EXPECT_EQ(zones.dma, 3890u);
  EXPECT_EQ(zones.cpuLists, 63u);
}

TEST(KernelMemoryText, SocketsCompressedSwapAndShares) {
  EXPECT_EQ(
      parseTcpPages("sockets: used 14\nTCP: inuse 1 orphan 0 tw 0 alloc 1 mem 257\nUDP: inuse 0 mem 3\n"),
      257u);
  EXPECT_EQ(parseTcpPages("TCP: inuse mem"), 0u);
  EXPECT_EQ(parseZramBytes("  41943040 10485760  11534336        0 12582912        0        0\n"), 11534336u);
  EXPECT_EQ(parseZramBytes("1 2"), 0u);
  EXPECT_EQ(
      parseShareKb(
          "56-7f ---p 00000000 00:00 0    [rollup]\nRss: 320792 kB\nPss: 108645 kB\nPss_Anon: 105407 kB\n"
          "Shared_Hugetlb: 2048 kB\nPrivate_Hugetlb: 4096 kB\nSwapPss: 10 kB\n"),
      105407u + 10);
  EXPECT_EQ(parseShareKb("Pss: 108645 kB\n"), std::nullopt);
}

TEST(ForkShares, TheFamilyThatMayCountMostTwiceComesFirst) {
  constexpr uint64_t kSmall = 1000, kLarge = 50'000;
  std::vector<int32_t> order;
  for (const SharingProcess& member : membersOfFamilies({{1, 7, kSmall, 0},
                                                         {2, 0, kLarge, 0},  // of an unknown program
                                                         {3, 8, kLarge, 0},  // alone
                                                         {4, 9, kSmall, 0},
                                                         {5, 9, kLarge, 0},
                                                         {6, 9, kLarge, 0},
                                                         {7, 9, 3, 0},  // too small to matter
                                                         {8, 7, kSmall, 0}})) {
    order.push_back(member.pid);
  }
  EXPECT_EQ(order, (std::vector<int32_t>{6, 5, 4, 8, 1}));
}

}  // namespace
}  // namespace quorveld::linux_platform
