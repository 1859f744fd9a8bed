#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "platform/linux/processes/process_table.h"
#include "platform/linux/processes/process_table_source.h"
#include "tests/sim/sim_platform.h"

// A kernel or a policy that refuses BPF costs one cheap attempt a program, and /proc serves in its place.

namespace {

/// Larger than what libbpf loads to find out what the kernel can do.
constexpr uint32_t kRealProgramInstructions = 64;

/// Shared with the copies of this process, one of which loads.
struct Loads {
  int count;
  uint32_t largestLogBytes;
  bool neverEnd;
};
Loads* const loads = static_cast<Loads*>(
    mmap(nullptr, sizeof(Loads), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

}  // namespace

/// Stands before the C library's, through which libbpf makes its system calls. As that does, it takes six
/// arguments from callers who passed fewer, which AddressSanitizer would stop at.
extern "C" __attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
  using Syscall = long (*)(long, ...);
  static const auto real = reinterpret_cast<Syscall>(dlsym(RTLD_NEXT, "syscall"));
  std::array<void*, 6> arguments{};
  va_list list;
  va_start(list, number);
  for (void*& argument : arguments) argument = va_arg(list, void*);
  va_end(list);
  if (number == SYS_bpf && reinterpret_cast<uintptr_t>(arguments[0]) == BPF_PROG_LOAD) {
    const auto* load = static_cast<const bpf_attr*>(arguments[1]);
    if (load->insn_cnt > kRealProgramInstructions) {
      ++loads->count;
      while (loads->neverEnd) pause();
      loads->largestLogBytes = std::max(loads->largestLogBytes, load->log_size);
    }
  }
  return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

namespace quorveld::linux_platform {
namespace {

constexpr uint32_t kNoCapabilities = 0;
constexpr uint32_t kAllThereAre = UINT32_MAX;
constexpr uint32_t kBpfAlone = 1U << (CAP_BPF - 32);  // of the upper 32

/// What a process saw that had given up all capabilities but these.
struct Outcome {
  bool gaveUp;
  int loads;
  uint32_t logBytes;
  bool sawItself;
  char line[512];  ///< of the log
};

bool keepOnly(uint32_t upperCapabilities) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> sets{};
  sets[1].effective = sets[1].permitted = upperCapabilities;
  return syscall(SYS_capset, &header, sets.data()) == 0;
}

Outcome lookWithOnly(uint32_t upperCapabilities, bool loadsNeverEnd) {
  Outcome outcome{};
  outcome.gaveUp = upperCapabilities == kAllThereAre || keepOnly(upperCapabilities);
  if (!outcome.gaveUp) return outcome;
  *loads = {0, 0, loadsNeverEnd};
  const sim::SimPlatform sim;  // takes the log's lines
  LinuxProcessTables tables;
  tables.prepare();
  platform::rusage_info_v3 usage;
  outcome.sawItself = tables.look()->usage(getpid(), &usage) == 0;
  outcome.loads = loads->count;
  outcome.logBytes = loads->largestLogBytes;
  for (const auto& line : sim.logs.lines) {
    if (line.text.starts_with("Process table: read through")) {
      std::snprintf(outcome.line, sizeof(outcome.line), "%s", line.text.c_str());
    }
  }
  return outcome;
}

Outcome inAnotherProcess(uint32_t upperCapabilities, bool loadsNeverEnd = false) {
  Outcome outcome{};
  int ends[2];
  if (pipe(ends) != 0) return outcome;
  const pid_t pid = fork();
  if (pid == 0) {
    outcome = lookWithOnly(upperCapabilities, loadsNeverEnd);
    _exit(write(ends[1], &outcome, sizeof(outcome)) == sizeof(outcome) ? 0 : 1);
  }
  close(ends[1]);
  EXPECT_EQ(read(ends[0], &outcome, sizeof(outcome)), static_cast<ssize_t>(sizeof(outcome)));
  close(ends[0]);
  waitpid(pid, nullptr, 0);
  return outcome;
}

TEST(BpfRefusal, WithoutCapabilitiesProcIsReadAndTheLogSaysWhatThatCosts) {
  const Outcome outcome = inAnotherProcess(kNoCapabilities);
  ASSERT_TRUE(outcome.gaveUp);
  EXPECT_TRUE(outcome.sawItself);
  EXPECT_EQ(outcome.loads, 0);
  EXPECT_TRUE(std::string(outcome.line)
                  .starts_with("Process table: read through procfs, about 40 times slower than BPF ("))
      << outcome.line;
}

TEST(BpfRefusal, TheVerifierSaysNoOnceAndBriefly) {
  {
    const sim::SimPlatform sim;  // takes the log's lines
    std::string why;
    if (!openBpfSource(BpfPass::taskWalk, why)) GTEST_SKIP() << why;
  }
  const Outcome outcome = inAnotherProcess(kBpfAlone);
  if (!outcome.gaveUp) GTEST_SKIP() << "needs CAP_BPF";
  EXPECT_TRUE(outcome.sawItself);
  EXPECT_NE(std::strstr(outcome.line, "procfs"), nullptr) << outcome.line;
  EXPECT_GE(outcome.loads, 1);  // what the walk reads of the kernel takes CAP_PERFMON
  EXPECT_LE(outcome.loads, 2);  // no program twice, with a log that grows
  EXPECT_LE(outcome.logBytes, 65'536u);
}

TEST(BpfRefusal, ALoadThatNeverEndsIsTheLastOne) {
  {
    const sim::SimPlatform sim;  // takes the log's lines
    std::string why;
    if (!openBpfSource(BpfPass::taskWalk, why)) GTEST_SKIP() << why;
  }
  const Outcome outcome = inAnotherProcess(kAllThereAre, true);
  EXPECT_TRUE(outcome.sawItself);
  EXPECT_EQ(outcome.loads, 1);
  EXPECT_STREQ(
      outcome.line,
      "Process table: read through procfs, about 40 times slower than BPF (BPF: loading takes too long)");
}

size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

uint64_t peakResidentKb() {
  std::stringstream status;
  status << std::ifstream("/proc/self/status").rdbuf();
  const std::string text = status.str();
  return std::stoull(text.substr(text.find("VmHWM:") + 6));
}

TEST(BpfLoading, LeavesNeitherProcessNorDescriptorNorMemory) {
  const sim::SimPlatform sim;  // takes the log's lines
  for (const BpfPass pass : {BpfPass::taskWalk, BpfPass::taskIterator}) {
    const size_t before = openDescriptors();
    std::ofstream("/proc/self/clear_refs") << "5" << std::flush;  // the peak begins anew
    const uint64_t peakBefore = peakResidentKb();
    std::string why;
    auto source = openBpfSource(pass, why);
    if (!source) GTEST_SKIP() << why;
    EXPECT_FALSE(source->read({}).empty());
    EXPECT_LT(peakResidentKb() - peakBefore, 3000u) << "the kernel's types alone take more";
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    source.reset();
    EXPECT_EQ(openDescriptors(), before);
  }
}

}  // namespace
}  // namespace quorveld::linux_platform
