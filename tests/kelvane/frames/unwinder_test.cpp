#include "kelvane/frames/unwinder.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "kelvane/base/proc_files.h"
#include "kelvane/threads/mapped_file.h"
#include "kelvane/threads/read_memory_map.h"
#include "tests/kelvane/hang_target.h"

namespace kelvane_test {
namespace {

// The machine need not sign: the return addresses of a real stack are signed here, as 48-bit addresses are.
TEST(Unwinder, FindsItsWayThroughSignedReturnAddresses) {
  constexpr uint64_t kSignatureBits = 0x007F'0000'0000'0000;
  constexpr uint64_t kSignature = 0x0055'0000'0000'0000;
  const HangTarget victim("mutex");
  const std::string folder = "/proc/" + std::to_string(victim.pid());
  const kelvane::UniqueFd process(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const kelvane::MemoryMap map = kelvane::readMemoryMap(process.get());
  const pid_t thread = victim.thread();
  auto outcomes = kelvane::copyStacks(process.get(), victim.pid(), std::span(&thread, 1), thread,
                                      kelvane::Deadline(std::chrono::seconds(10)));
  ASSERT_EQ(outcomes.size(), 1u);
  if (!outcomes[0].copy) GTEST_SKIP() << outcomes[0].failure;
  kelvane::StackCopy copy = outcomes[0].copy.value_or(kelvane::StackCopy{});
  const auto open = [&](size_t index) { return openMappedFile(process.get(), map.modules[index]); };
  kelvane::Unwinder unwinder(victim.pid(), map.modules, open, /*names=*/false);
  const kelvane::UnwoundStack plain = unwinder.unwind(copy);
  ASSERT_GE(plain.addresses.size(), 3u) << plain.cutOff;

  size_t signedWords = 0;
  for (size_t at = 0; at + sizeof(uint64_t) <= copy.bytes.size(); at += sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, copy.bytes.data() + at, sizeof word);
    if (std::find(plain.addresses.begin(), plain.addresses.end(), word - 1) == plain.addresses.end())
      continue;
    word |= kSignature;
    std::memcpy(copy.bytes.data() + at, &word, sizeof word);
    ++signedWords;
  }
  EXPECT_GE(signedWords, 2u);
  EXPECT_NE(unwinder.unwind(copy).addresses, plain.addresses);
  copy.registers.signatureBits = kSignatureBits;
  const kelvane::UnwoundStack through = unwinder.unwind(copy);
  EXPECT_EQ(through.addresses, plain.addresses);
  EXPECT_EQ(through.cutOff, plain.cutOff);
}

}  // namespace
}  // namespace kelvane_test
