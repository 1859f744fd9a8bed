#include "tools/symbols/symbolicate.h"

#include <dlfcn.h>
#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <tuple>
#include <utility>

using quorvelctl::NamedReport;
using quorvelctl::SymbolFiles;
using quorvelctl::Symbols;

// Of which this program's own symbol table knows the name.
extern "C" __attribute__((noinline, used)) int quorvelFunctionToName(int x) {
  return x + 1;
}

namespace {

std::string hexText(uint64_t number) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%lx", static_cast<unsigned long>(number));
  return text;
}

/// Hexadecimal; empty when the file has none.
std::string buildIdOf(const std::string& path) {
  elf_version(EV_CURRENT);
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Elf* elf = elf_begin(fd, ELF_C_READ, nullptr);
  const void* bytes = nullptr;
  const ssize_t length = dwelf_elf_gnu_build_id(elf, &bytes);
  std::string text;
  for (ssize_t i = 0; i < length; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char*>(bytes)[i]);
    text += digits;
  }
  elf_end(elf);
  close(fd);
  return text;
}

uint64_t offsetOfFunction() {
  Dl_info loaded{};
  EXPECT_NE(dladdr(reinterpret_cast<void*>(&quorvelFunctionToName), &loaded), 0);
  return reinterpret_cast<uint64_t>(&quorvelFunctionToName) - reinterpret_cast<uint64_t>(loaded.dli_fbase);
}

TEST(Symbolicate, FramesAreNamedByFilesWithTheirBuildIdAlone) {
  const std::string path = std::filesystem::read_symlink("/proc/self/exe");
  const std::string own = buildIdOf(path);
  if (own.size() < 8) GTEST_SKIP() << "this program was linked without a build id";
  const std::string offset = hexText(offsetOfFunction());
  const std::string other = "00" + own.substr(2) + "77";
  // As a report has it, and as it has to be once its function is called `name`: members and digits stay as
  // they are.
  const auto report = [&](const std::string& module, const std::string& buildId, const std::string& name) {
    return R"({"metadata":{"PID":4,"verdict":{"sentence":"in )" + name + R"(.","chain":[{"function":")" +
           name + R"(","text":"m+0x1"}],"function":"0x5"},"launch":{"path":[{"function":")" + name +
           R"("}]}},"traceEvents":[1,[],{"ph":"X","name":")" + name +
           R"(","cat":"user","ts":1.500,"args":{"name":"m+0x1"}},{"name":"m+0x1","cat":"cpu","dur":1e300},{}],)" +
           R"("stackFrames":{"9":{"name":"do_futex","category":"kernel"},"2":{"name":")" + name +
           R"(","category":"m","module":")" + module + R"(","offset":")" + offset + R"(","build_id":")" +
           buildId + R"("},"3":{"name":"0x5","category":""}},"threads":[true,null,-7,"\n"]})";
  };
  std::string scratch = "/tmp/symbolicate.XXXXXX";
  ASSERT_TRUE(mkdtemp(scratch.data()));
  const std::string byBuildId = scratch + "/.build-id/" + own.substr(0, 2);
  std::filesystem::create_directories(byBuildId);
  std::filesystem::create_symlink(path, byBuildId + "/" + own.substr(2) + ".debug");
  std::filesystem::create_symlink(path, scratch + "/gone.so");
  // The right file, but compressed: what unpacks it could be made to fill the memory.
  const bool packed = std::system(("gzip -c '" + path + "' > " + scratch + "/packed.so").c_str()) == 0;
  EXPECT_TRUE(packed);

  struct Case {
    std::string module, buildId, debugDir;
    bool named;
  };
  for (const Case& one :
       {Case{path, own, "", true}, Case{path, other, "", false}, Case{path, "", "", false},
        Case{"/gone/m", own, "", false}, Case{"/gone/m", own, scratch, true},
        Case{scratch + "/packed.so", own, "", false}, Case{"/gone/gone.so", other, scratch, false},
        Case{"/gone/m", "/../../" + scratch, scratch, false}}) {
    Symbols symbols(one.debugDir.empty() ? std::vector<std::string>() : std::vector{one.debugDir},
                    SymbolFiles::all);
    std::string error;
    const std::string before = report(one.module, one.buildId, "m+0x1");
    const NamedReport result = quorvelctl::nameReport(before, symbols, error).value_or(NamedReport{});
    EXPECT_EQ(result.text, one.named ? report(one.module, one.buildId, "quorvelFunctionToName") : before);
    EXPECT_EQ(result.frames, 2u);
    EXPECT_EQ(result.withoutFile.empty(), one.named);
  }

  std::filesystem::remove_all(scratch);
}

TEST(Symbolicate, WhatOthersMayHaveWrittenIsOpenedOnlyForThoseWhoAsk) {
  const std::string path = std::filesystem::read_symlink("/proc/self/exe");
  const std::string own = buildIdOf(path);
  if (own.size() < 8) GTEST_SKIP() << "this program was linked without a build id";
  std::string scratch = "/tmp/symbolicate.XXXXXX";
  ASSERT_TRUE(mkdtemp(scratch.data()));
  const std::string copy = scratch + "/copy";
  std::filesystem::copy_file(path, copy);
  struct statvfs mount {};
  ASSERT_EQ(statvfs(copy.c_str(), &mount), 0);
  quorvelctl::Report raw;
  raw.verdict.emplace();
  raw.verdict->function = "m+0x1";
  raw.verdict->chain.resize(1);
  raw.verdict->chain[0].function = "m+0x1";
  raw.verdict->sentence = "It was in m+0x1 (m).";
  raw.launch.emplace();
  raw.launch->path.resize(1);
  raw.launch->path[0].function = "m+0x1";
  raw.launch->phases.resize(1);
  raw.launch->phases[0].mostly = raw.launch->path[0];
  raw.threads.resize(2);
  for (auto& thread : raw.threads) thread.userStack = {{"m+0x1", copy, own, offsetOfFunction()}};
  raw.sampled.places = {{raw.threads[0].userStack, {}}};
  for (const auto& [mode, owner, named] : {std::tuple{0755, geteuid(), (mount.f_flag & ST_NOSUID) == 0},
                                           {0757, geteuid(), false},
                                           {0775, geteuid(), false},
                                           {0755, 4711U, false}}) {
    if (owner != geteuid() && geteuid() != 0) continue;  // may not give it away
    ASSERT_EQ(chown(copy.c_str(), owner, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(chmod(copy.c_str(), static_cast<mode_t>(mode)), 0);
    for (const SymbolFiles which : {SymbolFiles::trusted, SymbolFiles::all}) {
      const std::string name = named || which == SymbolFiles::all ? "quorvelFunctionToName" : "m+0x1";
      Symbols symbols({}, which);
      quorvelctl::Report shown = raw;
      quorvelctl::nameFunctions(shown, symbols);
      EXPECT_EQ(shown.threads[1].userStack[0].name, name) << mode << " " << owner;
      EXPECT_EQ(shown.sampled.places[0].stack[0].name, name);
      EXPECT_EQ(shown.verdict->function, name);
      EXPECT_EQ(shown.verdict->chain[0].function, name);
      EXPECT_EQ(shown.launch->path[0].function, name);
      EXPECT_EQ(shown.launch->phases[0].mostly->function, name);
      EXPECT_EQ(shown.verdict->sentence, "It was in " + name + " (m).");
    }
  }
  std::filesystem::remove_all(scratch);
}

/// What the first instruction of the last file's text is called, and the most memory in kB that it took to
/// look at all of them.
std::pair<std::string, long> namedWithin(const std::vector<std::string>& modules, const std::string& offset) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  const pid_t child = fork();
  if (child == 0) {
    Symbols symbols({}, SymbolFiles::all);
    std::string name;
    for (const std::string& module : modules)
      name = symbols.nameOf({"", module, buildIdOf(module), std::stoull(offset, nullptr, 16)});
    _exit(write(ends[1], name.data(), name.size()) < 0);
  }
  close(ends[1]);
  std::array<char, 256> name{};
  const ssize_t length = read(ends[0], name.data(), name.size());
  close(ends[0]);
  int status = 0;
  rusage used{};
  wait4(child, &status, 0, &used);
  EXPECT_EQ(status, 0);
  return {std::string(name.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))), used.ru_maxrss};
}

TEST(Symbolicate, SymbolsThatAreCompressedAreFoundAndUnpackedWithinBounds) {
  if (QV_SANITIZED) GTEST_SKIP() << "a sanitizer ends a program that gets no more memory";
  std::string scratch = "/tmp/symbolicate.XXXXXX";
  ASSERT_TRUE(mkdtemp(scratch.data()));
  std::string twofold = "_Z1fSt4pairIiiES_IS0_S0_E";  // each of its types has the one before twice
  for (int i = 1; i <= 20; ++i) {
    const std::string before(1, static_cast<char>(i < 10 ? '0' + i : 'A' + i - 10));
    twofold.append("S_IS").append(before).append("_S").append(before).append("_E");
  }
  // In a mangled name f stands for float.
  const std::string make = "cd " + scratch + R"( && {
    printf '.globl f\n.type f,@function\n.hidden f\nf: nop\n.size f,1\n' >f.s
    cc -nostdlib -shared -Wl,--build-id f.s -o f.so && strip -o bare.so f.so && xz f.so
    objcopy --add-section .gnu_debugdata=f.so.xz bare.so packed.so
    (cat f.s; printf '.data\n.zero 120000000\n') >big.s
    cc -nostdlib -shared big.s -o big.so && xz -0 big.so
    for i in 1 2 3; do objcopy --add-section .gnu_debugdata=big.so.xz bare.so big$i.so; done
    sed 's/\<f\>/)" + twofold +
                           R"(/g' f.s >n.s
    cc -nostdlib -shared -Wl,--build-id n.s -o n.so
    head -c 512M /dev/zero | xz -0 >bomb.xz
    objcopy --add-section .gnu_debugdata=bomb.xz bare.so bomb.so
    xz -dk f.so.xz && nm --format=posix f.so | grep '^f ' >f
  } >/dev/null 2>&1)";
  const bool made = std::system(make.c_str()) == 0;
  std::string name, type, offset;
  std::ifstream(scratch + "/f") >> name >> type >> offset;
  if (made) {
    const auto [found, plainKb] = namedWithin({scratch + "/packed.so"}, offset);
    EXPECT_EQ(found, "f");
    EXPECT_LT(namedWithin({scratch + "/bomb.so"}, offset).second, 400 << 10);
    const long bigKb = namedWithin({scratch + "/big1.so"}, offset).second;
    EXPECT_GT(bigKb, plainKb + (100 << 10));
    EXPECT_LT(namedWithin({scratch + "/big1.so", scratch + "/big2.so", scratch + "/big3.so"}, offset).second,
              plainKb + (270 << 10));
    const auto [mangled, mangledKb] = namedWithin({scratch + "/n.so"}, offset);
    EXPECT_EQ(mangled, twofold.substr(0, 256));
    EXPECT_LT(mangledKb, plainKb + (32 << 10));
  }
  std::filesystem::remove_all(scratch);
  if (!made) GTEST_SKIP() << "it takes a compiler, binutils and xz";
}

}  // namespace
