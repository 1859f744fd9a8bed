#include "tools/symbolicate.h"

#include <dlfcn.h>
#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

using quorvelctl::NamedReport;
using quorvelctl::Symbols;
using Json = nlohmann::json;

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

TEST(Symbolicate, FramesAreNamedByFilesWithTheirBuildIdAlone) {
  const std::string path = std::filesystem::read_symlink("/proc/self/exe");
  const std::string own = buildIdOf(path);
  if (own.size() < 8) GTEST_SKIP() << "this program was linked without a build id";
  Dl_info loaded{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&quorvelFunctionToName), &loaded), 0);
  const std::string offset = hexText(reinterpret_cast<uint64_t>(&quorvelFunctionToName) -
                                     reinterpret_cast<uint64_t>(loaded.dli_fbase));
  const std::string other = "00" + own.substr(2) + "77";
  const auto report = [&](const std::string& module, const std::string& buildId) {
    Json json = Json::parse(
        R"({"metadata":{"PID":4,"verdict":{"sentence":"in m+0x1."}},"traceEvents":[{"ph":"X","cat":"user","name":"m+0x1"},
      {"ph":"X","cat":"cpu","name":"m+0x1"}],"stackFrames":{"1":{"name":"do_futex","category":"kernel"},
      "2":{"name":"m+0x1","category":"m"},"3":{"name":"0x5","category":""}}})");
    json["stackFrames"]["2"].update({{"module", module}, {"offset", offset}, {"build_id", buildId}});
    return json.dump();
  };
  std::string scratch = "/tmp/symbolicate.XXXXXX";
  ASSERT_TRUE(mkdtemp(scratch.data()));
  const std::string byBuildId = scratch + "/.build-id/" + own.substr(0, 2);
  std::filesystem::create_directories(byBuildId);
  std::filesystem::create_symlink(path, byBuildId + "/" + own.substr(2) + ".debug");
  std::filesystem::create_symlink(path, scratch + "/gone.so");

  struct Case {
    std::string module, buildId, debugDir;
    bool named;
  };
  for (const Case& one :
       {Case{path, own, "", true}, Case{path, other, "", false}, Case{path, "", "", false},
        Case{"/gone/m", own, "", false}, Case{"/gone/m", own, scratch, true},
        Case{"/gone/gone.so", other, scratch, false}, Case{"/gone/m", "/../../" + scratch, scratch, false}}) {
    Symbols symbols(one.debugDir.empty() ? std::vector<std::string>() : std::vector{one.debugDir});
    std::string error;
    const NamedReport result =
        quorvelctl::nameReport(report(one.module, one.buildId), symbols, error).value_or(NamedReport{});
    const Json json = Json::parse(result.text);
    const char* name = one.named ? "quorvelFunctionToName" : "m+0x1";
    EXPECT_EQ(json["stackFrames"]["2"]["name"], name) << one.module << " " << one.buildId;
    EXPECT_EQ(json["traceEvents"][0]["name"], name);
    EXPECT_EQ(json["traceEvents"][1]["name"], "m+0x1");
    EXPECT_EQ(json["metadata"]["verdict"]["sentence"], std::string("in ") + name + ".");
    EXPECT_EQ(json["stackFrames"]["1"]["name"], "do_futex");
    EXPECT_EQ(result.frames, 2u);
    EXPECT_EQ(result.withoutFile.empty(), one.named);
  }
  std::filesystem::remove_all(scratch);
}

}  // namespace
