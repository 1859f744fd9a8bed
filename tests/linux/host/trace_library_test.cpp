#include "platform/linux/host/trace_library.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

#include "platform/linux/base/unique_fd.h"
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

TEST(TraceLibrary, IsLoadedThoughClientsHoldEveryDescriptor) {
  Dl_info libc{};
  ASSERT_NE(::dladdr(reinterpret_cast<void*>(&::dladdr), &libc), 0);
  // Part of the C library, and used by nobody: it is not loaded already.
  const auto unused = std::filesystem::path(libc.dli_fname).parent_path() / "libBrokenLocale.so.1";
  if (!std::filesystem::exists(unused)) GTEST_SKIP() << unused << " is not there";
  const ScratchRoot root;
  std::filesystem::create_directories(root / "usr/lib");
  std::filesystem::create_symlink(unused, root / "usr/lib/unused.so");

  LinuxTraceLibraryLoader loader;
  std::vector<UniqueFd> taken;
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit low{64, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  while (taken.empty() || taken.back()) taken.emplace_back(::dup(STDERR_FILENO));
  std::string reason;
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(loader.open("/usr/lib/unused.so", reason)) << reason;
  ::setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace
}  // namespace quorveld::linux_platform
