#include "tools/symbolicate.h"

#include <gtest/gtest.h>
#include <link.h>

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

/// The program that runs these tests, which dl_iterate_phdr(3) calls with first.
struct OwnProgram {
  uint64_t base = 0;
  std::string buildId;

  OwnProgram() { dl_iterate_phdr(&read, this); }

  static int read(dl_phdr_info* info, size_t, void* into) {
    auto& program = *static_cast<OwnProgram*>(into);
    program.base = info->dlpi_addr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
      const ElfW(Phdr)& header = info->dlpi_phdr[i];
      if (header.p_type != PT_NOTE) continue;
      const auto* at = reinterpret_cast<const unsigned char*>(info->dlpi_addr + header.p_vaddr);
      for (const auto* end = at + header.p_memsz; at < end;) {
        const auto* note = reinterpret_cast<const ElfW(Nhdr)*>(at);
        const auto* text = at + sizeof *note + (note->n_namesz + 3) / 4 * 4;
        for (size_t byte = 0; note->n_type == NT_GNU_BUILD_ID && byte < note->n_descsz; ++byte) {
          char digits[3];
          std::snprintf(digits, sizeof digits, "%02x", text[byte]);
          program.buildId += digits;
        }
        at = text + (note->n_descsz + 3) / 4 * 4;
      }
    }
    return 1;
  }
};

TEST(Symbolicate, FramesAreNamedByFilesWithTheirBuildIdAlone) {
  const OwnProgram own;
  if (own.buildId.size() < 8) GTEST_SKIP() << "this program was linked without a build id";
  const std::string path = std::filesystem::read_symlink("/proc/self/exe");
  const std::string offset = hexText(reinterpret_cast<uint64_t>(&quorvelFunctionToName) - own.base);
  const std::string other = "00" + own.buildId.substr(2) + "77";
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
  const std::string byBuildId = scratch + "/.build-id/" + own.buildId.substr(0, 2);
  std::filesystem::create_directories(byBuildId);
  std::filesystem::create_symlink(path, byBuildId + "/" + own.buildId.substr(2) + ".debug");
  std::filesystem::create_symlink(path, scratch + "/gone.so");

  struct Case {
    std::string module, buildId, debugDir;
    bool named;
  };
  for (const Case& one :
       {Case{path, own.buildId, "", true}, Case{path, other, "", false}, Case{path, "", "", false},
        Case{"/gone/m", own.buildId, "", false}, Case{"/gone/m", own.buildId, scratch, true},
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
