#include "kelvane/capture/file_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "kelvane/base/proc_files.h"

namespace kelvane {
namespace {

constexpr int kSkipped = 77;

/// A process that has locked the file.
pid_t lockedByAnother(const std::string& file) {
  int ends[2];
  if (pipe(ends) != 0) return -1;
  const UniqueFd ready(ends[0]);
  UniqueFd said(ends[1]);
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int fd = open(file.c_str(), O_RDWR);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    if (fcntl(fd, F_SETLK, &lock) == 0 && write(said.get(), "r", 1) == 1) pause();
    _exit(1);
  }
  said = UniqueFd();
  char byte = 0;
  return read(ready.get(), &byte, 1) == 1 ? pid : -1;
}

/// Whom the caller's try of a lock on its descriptor is put down to; 0: nobody.
pid_t holderOf(int fd) {
  const UniqueFd self(open("/proc/self", O_RDONLY | O_DIRECTORY));
  WaitParty party{getpid(), "test", {}};
  party.facts.tid = getpid();
  party.facts.syscall = SystemCall{SYS_fcntl, {static_cast<uint64_t>(fd), F_SETLK}};
  const Deadline deadline(std::chrono::seconds(30));
  DescriptorIndex index(party.pid, deadline);
  const auto wait = fileLockTry(self.get(), party, index);
  return !wait || wait->holders.empty() ? 0 : wait->holders.front().pid;
}

/// In a process of its own, for its mounts: two files of the same number on two file systems.
int tellsFileSystemsApart() {
  std::vector<std::string> folders;
  std::string files[2];
  ino_t inodes[2] = {0, 1};
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return kSkipped;
  for (int i = 0; i < 2; i++) {
    std::string folder = testing::TempDir() + "/file-lock-XXXXXX";
    if (!mkdtemp(folder.data()) || mount("none", folder.c_str(), "tmpfs", 0, nullptr) != 0) return kSkipped;
    files[i] = folder + "/database";
    folders.push_back(folder);
    const UniqueFd made(open(files[i].c_str(), O_RDWR | O_CREAT, 0600));
    struct stat status {};
    if (fstat(made.get(), &status) == 0) inodes[i] = status.st_ino;
  }
  if (inodes[0] != inodes[1]) return kSkipped;
  const UniqueFd tried(open(files[0].c_str(), O_RDWR));
  const pid_t elsewhere = lockedByAnother(files[1]);
  const pid_t nobody = holderOf(tried.get());
  const pid_t here = lockedByAnother(files[0]);
  const pid_t holder = holderOf(tried.get());
  for (const pid_t pid : {elsewhere, here}) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
  for (const std::string& folder : folders) umount2(folder.c_str(), MNT_DETACH), rmdir(folder.c_str());
  return elsewhere > 0 && here > 0 && nobody == 0 && holder == here ? 0 : 1;
}

TEST(FileLocks, OfAFileWithTheSameNumberElsewhereIsNotInTheWay) {
  const pid_t child = fork();
  if (child == 0) _exit(tellsFileSystemsApart());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << "no mounts of its own are permitted";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace kelvane
