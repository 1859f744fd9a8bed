#include "platform/linux/files/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "platform/linux/base/background_thread.h"
#include "tests/linux/scratch_root.h"
#include "tests/patience.h"

namespace quorveld::linux_platform {
namespace {

using platform::EntryKind;

class Files : public testing::Test {
 protected:
  /// A file of the daemon's holding `text`.
  void make(const std::string& path, const std::string& text) {
    std::error_code error;
    const auto file = files_.createProtected(path, error);
    ASSERT_TRUE(file) << error.message();
    EXPECT_FALSE(file->write(text));
  }
  /// Finishes the file at `from`, and waits until that is done.
  std::error_code finish(const std::string& from, const std::string& to) {
    std::error_code error;
    auto file = files_.createProtected(from, error);
    if (!file) return error;
    std::promise<std::error_code> result;
    files_.finish(std::move(file), from, to, [&](std::error_code failure) { result.set_value(failure); });
    return result.get_future().get();
  }
  size_t entriesIn(const std::string& path) const {
    const std::filesystem::directory_iterator entries(root_ / path);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
  }

  const ScratchRoot root_;
  LinuxFiles files_;
};

TEST_F(Files, AreMadeWithTheirModeWithoutTruncationAndNeverThroughALink) {
  const mode_t before = ::umask(0077);
  make("/report", "first, long");
  ::umask(before);
  struct stat status {};
  ASSERT_EQ(::stat((root_ / "report").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);
  make("/report", "second");
  EXPECT_EQ(root_.read("report"), "second long");

  root_.write("victim", "untouched");
  std::filesystem::create_symlink(root_ / "victim", root_ / "link");
  std::filesystem::create_symlink(root_ / "nowhere", root_ / "dangling");
  for (const char* path : {"/link", "/dangling"}) {
    std::error_code error;
    EXPECT_FALSE(files_.createProtected(path, error));
    EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(files_.kind(path), EntryKind::other);
  }
  EXPECT_FALSE(root_.exists("nowhere"));
}

TEST_F(Files, DirectoriesAreMadeWithWhatIsMissingAboveThem) {
  EXPECT_EQ(files_.kind("/var"), EntryKind::missing);
  EXPECT_FALSE(files_.makeDirectory("/var/root/Library", 0755));
  EXPECT_EQ(files_.kind("/var/root/Library"), EntryKind::directory);
  struct stat status {};
  ASSERT_EQ(::stat((root_ / "var/root").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U) << "the superuser's alone";
  EXPECT_EQ(files_.makeDirectory("/var/root/Library", 0755), std::errc::file_exists);
  make("/var/plain", "");
  EXPECT_EQ(files_.makeDirectory("/var/plain/below", 0755), std::errc::not_a_directory);
  EXPECT_FALSE(files_.remove("/var/plain"));
  EXPECT_EQ(files_.remove("/var/plain"), std::errc::no_such_file_or_directory);
}

TEST_F(Files, WhatIsBeingFinishedIsNobodysToWriteAndIsDoneBeforeTheEnd) {
  const std::string text(8 << 20, 'x');
  std::error_code error;
  {
    LinuxFiles files;
    std::vector<std::unique_ptr<platform::File>> written;
    for (int i = 0; i < 3; ++i) {
      const std::string path = "/" + std::to_string(i);
      written.push_back(files.createProtected(path, error));
      ASSERT_TRUE(written.back());
      EXPECT_FALSE(written.back()->write(text));
      EXPECT_FALSE(files.createProtected(path, error));
      EXPECT_EQ(error, std::errc::device_or_resource_busy);
    }
    for (int i = 0; i < 3; ++i) {
      const std::string path = "/" + std::to_string(i);
      files.finish(std::move(written[static_cast<size_t>(i)]), path, path + ".done",
                   [](std::error_code failure) { EXPECT_FALSE(failure); });
    }
  }
  for (const char* name : {"0.done", "1.done", "2.done"}) EXPECT_EQ(root_.read(name).size(), text.size());
  EXPECT_EQ(entriesIn(""), 3u);
}

TEST_F(Files, FinishesBesideItsCallerWhateverWasCreatedBefore) {
  const std::string text(4 << 20, 'x');  // the disk takes longer for it than all the calls do
  const auto caller = std::this_thread::get_id();
  std::error_code error;
  LinuxFiles files;
  std::vector<std::unique_ptr<platform::File>> made;
  for (size_t i = 0; i < kMaxFinishingFiles + 2; ++i) {
    made.push_back(files.createProtected("/" + std::to_string(i), error));
    ASSERT_TRUE(made.back());
    EXPECT_FALSE(made.back()->write(text));
  }
  for (size_t i = 0; i < made.size(); ++i) {
    const std::string path = "/" + std::to_string(i);
    files.finish(std::move(made[i]), path, path + ".done",
                 [caller](auto) { EXPECT_NE(std::this_thread::get_id(), caller); });
  }
}

TEST(BackgroundThread, RefusesWhatIsTooMuchAndLeavesWhatIsStuckBehind) {
  std::promise<void> stuck;
  const auto waits = [held = stuck.get_future().share()] {
    held.wait();
    return std::error_code();
  };
  std::atomic<int> done{0};
  const auto start = std::chrono::steady_clock::now();
  {
    BackgroundThread thread("test", 2, std::chrono::milliseconds(100));
    EXPECT_TRUE(thread.tryPost(waits, [&](std::error_code) { ++done; }));
    EXPECT_TRUE(thread.tryPost([] { return std::error_code(); }, [&](std::error_code) { ++done; }));
    EXPECT_EQ(thread.waiting(), 2u);
    EXPECT_FALSE(thread.tryPost(waits, [&](std::error_code) { ++done; }));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, tests::kPatience);
  stuck.set_value();
  EXPECT_EQ(done, 0) << "nobody is told any more";
}

TEST(BackgroundThread, TakesWhatSeveralThreadsPostOnceEach) {
  constexpr int kPosters = 4;
  constexpr int kJobs = 50;
  std::atomic<int> worked{0};
  {
    BackgroundThread thread("test", kPosters * kJobs, tests::kPatience);
    std::vector<std::thread> posters;
    for (int i = 0; i < kPosters; ++i) {
      posters.emplace_back([&] {
        for (int job = 0; job < kJobs; ++job) {
          EXPECT_TRUE(thread.tryPost([&] { return ++worked, std::error_code(); }, [](std::error_code) {}));
        }
      });
    }
    for (std::thread& poster : posters) poster.join();
  }
  EXPECT_EQ(worked, kPosters * kJobs);
}

TEST_F(Files, FinishingCrossesFileSystemsWithTheSamePromises) {
  std::string other = "/dev/shm/quorveld-XXXXXX";
  struct stat here {};
  struct stat there {};
  if (!::mkdtemp(other.data()) || ::stat((root_ / "").c_str(), &here) != 0 ||
      ::stat(other.c_str(), &there) != 0 || here.st_dev == there.st_dev) {
    GTEST_SKIP() << "/dev/shm is no other file system";
  }
  std::filesystem::create_directory_symlink(other, root_ / "spool");
  const std::string text(3'000'000, 'x');
  make("/a", text);
  EXPECT_FALSE(finish("/a", "/spool/a"));
  EXPECT_EQ(root_.read("spool/a"), text);
  EXPECT_FALSE(root_.exists("a"));

  make("/b", "b");
  EXPECT_EQ(finish("/b", "/spool/a"), std::errc::file_exists);
  EXPECT_EQ(root_.read("spool/a").size(), text.size());
  EXPECT_FALSE(root_.exists("b"));
  EXPECT_EQ(entriesIn("spool"), 1u);  // and no copy half done
  std::filesystem::remove_all(other);
}

TEST_F(Files, WriteThatDoesNotFitIsAnError) {
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{4096, before.rlim_max};
  const auto ignored = ::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &small);
  std::error_code error;
  const auto file = files_.createProtected("/report", error);
  ASSERT_TRUE(file);
  EXPECT_FALSE(file->write(std::string(4000, 'x')));
  EXPECT_TRUE(file->write(std::string(4000, 'x')));
  EXPECT_TRUE(file->write("x"));
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, ignored);
}

TEST_F(Files, JsonKeepsItsOrderAndRefusesWhatIsNoUtf8) {
  using platform::Value;
  const platform::Dictionary dictionary = {
      {"Reason", Value{std::string("h\u00e4ngt\n\"1\"")}},
      {"PID", Value{int64_t{-1}}},
      {"Array", Value{platform::Array{Value{uint64_t{18446744073709551615U}}, Value{true}, Value{0.5}}}},
      {"Empty", Value{platform::Dictionary{}}}};
  std::string error;
  EXPECT_EQ(files_.serializeJson(dictionary, error),
            "{\"Reason\":\"h\u00e4ngt\\n\\\"1\\\"\",\"PID\":-1,"
            "\"Array\":[18446744073709551615,true,0.5],\"Empty\":{}}");
  EXPECT_EQ(files_.serializeJson({{"Reason", Value{std::string("\xff")}}}, error), std::nullopt);
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace quorveld::linux_platform
