#include "kelvane/frames/elf_parts.h"

#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "tests/kelvane/hang_target.h"

namespace kelvane_test {
namespace {

using kelvane::ElfBudget;
using kelvane::ElfParts;

/// A copy of the victim's program that a test changes; removed with this.
class ChangedProgram {
 public:
  ChangedProgram() : fd_(mkostemp(path_, O_CLOEXEC)) {
    std::ostringstream bytes;
    bytes << std::ifstream(KELVANE_VICTIM, std::ios::binary).rdbuf();
    bytes_ = bytes.str();
    memcpy(&header, bytes_.data(), sizeof header);
  }
  ~ChangedProgram() { unlink(path_); }

  /// Writes it with the header as it is now, and as long as said.
  void write(size_t length) {
    memcpy(bytes_.data(), &header, sizeof header);
    ASSERT_EQ(pwrite(fd_.get(), bytes_.data(), bytes_.size(), 0), static_cast<ssize_t>(bytes_.size()));
    ASSERT_EQ(ftruncate(fd_.get(), static_cast<off_t>(length)), 0);
    ASSERT_EQ(fchmod(fd_.get(), 0700), 0);
  }
  void changeSections(const std::function<void(Elf64_Shdr&)>& change) {
    for (size_t i = 0; i < header.e_shnum; i++) {
      Elf64_Shdr section;
      char* at = bytes_.data() + header.e_shoff + i * sizeof section;
      memcpy(&section, at, sizeof section);
      change(section);
      memcpy(at, &section, sizeof section);
    }
  }
  const char* path() const { return path_; }
  size_t size() const { return bytes_.size(); }
  /// For reading it; writable, it could not be executed.
  int open() {
    fd_ = kelvane::UniqueFd(::open(path_, O_RDONLY | O_CLOEXEC));
    return fd_.get();
  }

  Elf64_Ehdr header;

 private:
  char path_[40] = "/tmp/kelvane-program-XXXXXX";
  kelvane::UniqueFd fd_;
  std::string bytes_;
};

constexpr size_t kTwoGigabytes = size_t{1} << 31;

/// Two gigabytes, a few kilobytes of them on the disk, and no section headers: the tables are found all the
/// same, and nothing goes by the file's size.
TEST(ElfParts, AnImmenseSparseProgramIsUnwoundFromItsTablesAlone) {
  ChangedProgram program;
  program.header.e_shoff = program.header.e_shnum = program.header.e_shstrndx = 0;
  program.write(kTwoGigabytes);
  ElfBudget budget{kelvane::kMaxElfBytesOfReport};
  std::string problem;
  ElfParts parts = ElfParts::copyOf(program.open(), /*names=*/true, budget, problem);
  EXPECT_TRUE(parts);
  EXPECT_EQ(problem, "");
  EXPECT_LT(kelvane::kMaxElfBytesOfReport - budget.left, program.size());

  HangTarget victim = HangTarget::byScript(std::string("exec ") + program.path() + " kinds");
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  const Dump dump = dumpOf(victim.pid(), victim.thread());
  getrusage(RUSAGE_SELF, &after);
  EXPECT_TRUE(dump.whole);
  EXPECT_EQ(dump.whyLeftOut("process"), "");
  EXPECT_LT(dump.took, kelvane::kCaptureBudget);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 20'000) << "KB";
  const Json thread = dump.thread(victim.thread());
  EXPECT_FALSE(thread.contains("stackCutOff")) << thread;
  EXPECT_GT(thread["frames"], 4) << "up to the thread's start";
}

TEST(ElfParts, APartBeyondTheLimitsIsLeftOutAndSaid) {
  ChangedProgram program;
  program.changeSections([](Elf64_Shdr& section) {
    if (section.sh_type == SHT_SYMTAB) section.sh_size = kelvane::kMaxElfBytes + 1;
  });
  program.write(kTwoGigabytes);
  ElfBudget budget{kelvane::kMaxElfBytesOfReport};
  std::string problem;
  EXPECT_TRUE(ElfParts::copyOf(program.open(), /*names=*/true, budget, problem)) << "without names";
  EXPECT_NE(problem.find("names: "), std::string::npos) << problem;
  EXPECT_EQ(problem.find("unwind"), std::string::npos) << problem;

  // What a report has room for, to the byte.
  budget = {kelvane::kMaxElfBytesOfReport};
  EXPECT_TRUE(ElfParts::copyOf(program.open(), /*names=*/false, budget, problem));
  EXPECT_EQ(problem, "");
  const size_t needed = kelvane::kMaxElfBytesOfReport - budget.left;
  budget = {needed};
  EXPECT_TRUE(ElfParts::copyOf(program.open(), false, budget, problem));
  EXPECT_EQ(problem + std::to_string(budget.left), "0");
  budget = {needed - 1};
  ElfParts::copyOf(program.open(), false, budget, problem);
  EXPECT_NE(problem.find("more than is read"), std::string::npos) << problem;
}

/// Cut anywhere, and with section headers of any bytes.
TEST(ElfParts, BrokenFilesGiveNothingOrWhatIsThere) {
  ElfBudget budget{kelvane::kMaxElfBytesOfReport};
  std::string problem;
  for (const size_t length :
       {size_t{0}, size_t{1}, sizeof(Elf64_Ehdr) - 1, sizeof(Elf64_Ehdr), size_t{4096}}) {
    ChangedProgram program;
    program.write(length);
    EXPECT_FALSE(ElfParts::copyOf(program.open(), true, budget, problem)) << length;
  }
  for (unsigned seed = 1; seed < 200; seed++) {
    ChangedProgram program;
    srand(seed);
    program.changeSections([](Elf64_Shdr& section) {
      if (rand() % 4 != 0) return;
      auto* bytes = reinterpret_cast<char*>(&section);
      for (int i = 0; i < 3; i++)
        bytes[static_cast<size_t>(rand()) % sizeof section] = static_cast<char>(rand());
    });
    program.write(program.size());
    budget = {kelvane::kMaxElfBytesOfReport};
    ElfParts parts = ElfParts::copyOf(program.open(), true, budget, problem);
    EXPECT_LT(kelvane::kMaxElfBytesOfReport - budget.left, 4 * program.size());
  }
}

}  // namespace
}  // namespace kelvane_test
