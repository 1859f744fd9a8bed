#include "platform/linux/host/trace_library.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "tests/linux/scratch_root.h"

namespace quorveld::linux_platform {
namespace {

TEST(TraceLibrary, IsLoadedBelowTheRootOrTheReasonIsTold) {
  const ScratchRoot root;
  LinuxTraceLibraryLoader loader;
  const std::string path = "/usr/lib/libkelvane" + std::string(loader.suffix());
  std::string reason;
  EXPECT_FALSE(loader.open(path, reason));
  EXPECT_TRUE(reason.starts_with(root / "usr/lib")) << reason;

  Dl_info any{};  // some library that exports a function
  ASSERT_NE(::dladdr(reinterpret_cast<void*>(&::dladdr), &any), 0);
  std::filesystem::create_directories(root / "usr/lib");
  std::filesystem::create_symlink(any.dli_fname, root / path.substr(1));
  const auto library = loader.open(path, reason);
  ASSERT_TRUE(library) << reason;
  EXPECT_NE(library->symbol("dladdr"), nullptr);
  EXPECT_EQ(library->symbol("kelvane_no_such_symbol"), nullptr);
}

}  // namespace
}  // namespace quorveld::linux_platform
