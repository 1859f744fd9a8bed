// Files: their locks, the disk below them, and a file system that is a process.

#include <fcntl.h>
#include <linux/fuse.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "tests/zoo/zoo.h"

namespace zoo {
namespace {

void lockRecord(int command) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  while (fcntl(openFile(), command, &whole) < 0) nap(50);
}

}  // namespace

std::string scratch(const char* name) {
  return std::string(std::getenv("QUORVELD_ROOT")) + "/zoo-" + std::to_string(getpgrp()) + "-" + name;
}

int openFile(const char* name, int flags) {
  return must(open(scratch(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | flags, 0600), "a file");
}

void readDisk() {
  constexpr size_t kBytes = size_t{8} << 20;
  const int file = openFile("data", O_DIRECT);
  const std::unique_ptr<void, void (*)(void*)> piece(std::aligned_alloc(4096, kBytes), std::free);
  std::memset(piece.get(), 'z', kBytes);
  must(static_cast<int>(pwrite(file, piece.get(), kBytes, 0)), "writing past the page cache");
  while (pread(file, piece.get(), kBytes, 0) > 0) {
  }
}

void touchMapping(size_t bytes, bool forget) {
  const int file = openFile("mapped");
  must(posix_fallocate(file, 0, static_cast<off_t>(bytes)) == 0 ? 0 : -1, "room for a file");
  for (const std::string piece(size_t{1} << 20, 'z'); lseek(file, 0, SEEK_CUR) < static_cast<off_t>(bytes);)
    must(static_cast<int>(write(file, piece.data(), piece.size())), "writing a file");
  fsync(file);
  while (true) {
    if (forget) posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
    auto* mapping = static_cast<volatile char*>(mmap(nullptr, bytes, PROT_READ, MAP_SHARED, file, 0));
    madvise(const_cast<char*>(mapping), bytes, MADV_RANDOM);
    for (size_t at = 0; at < bytes; at += 4096) static_cast<void>(mapping[at]);
    munmap(const_cast<char*>(mapping), bytes);
  }
}

namespace {

const Case kRecord("record-lock", {"file-lock", "keeper", "lock|sleeping"}, [] {
  process("keeper", [] { lockRecord(F_SETLK); });
  lockRecord(F_SETLKW);
});

// The kernel names no process for these.
const Case kOpenFile("open-file-lock", {"file-lock", "keeper", "lock|sleeping"}, [] {
  process("keeper", [] { lockRecord(F_OFD_SETLK); });
  lockRecord(F_OFD_SETLKW);
});

const Case kFlock("flock", {"file-lock", "keeper", "lock|sleeping"}, [] {
  process("keeper", [] { flock(openFile(), LOCK_EX); });
  flock(openFile(), LOCK_EX);
});

// As databases do, that give up after a while.
const Case kRetry("record-lock-retry", {"file-lock", "keeper", "sleeping"}, [] {
  process("keeper", [] { lockRecord(F_SETLK); });
  lockRecord(F_SETLK);
});

const Case kFlockRetry("flock-retry", {"file-lock", "keeper", "sleeping"}, [] {
  process("keeper", [] { flock(openFile(), LOCK_EX); });
  const int file = openFile();
  while (flock(file, LOCK_EX | LOCK_NB) < 0) nap(50);
});

const Case kFlockStopped("flock-stopped", {"stopped", "keeper", "file-lock|sleeping"}, [] {
  process(
      "keeper", [] { flock(openFile(), LOCK_EX); }, [] { raise(SIGSTOP); });
  flock(openFile(), LOCK_EX);
});

const Case kFlocks("deadlock-files", {"deadlock", "rival", "file-lock|sleeping"}, [] {
  flock(openFile("mine"), LOCK_EX);
  process(
      "rival", [] { flock(openFile("theirs"), LOCK_EX); }, [] { flock(openFile("mine"), LOCK_EX); });
  flock(openFile("theirs"), LOCK_EX);
});

/// Answers the kernel's first question, and no other.
void serveFuse(int device) {
  std::array<char, FUSE_MIN_READ_BUFFER * 4> request{};
  must(static_cast<int>(read(device, request.data(), request.size())), "reading the kernel's greeting");
  struct {
    fuse_out_header header;
    fuse_init_out init;
  } answer{};
  answer.header.len = sizeof answer;
  std::memcpy(&answer.header.unique, request.data() + offsetof(fuse_in_header, unique),
              sizeof answer.header.unique);
  answer.init.major = FUSE_KERNEL_VERSION;
  answer.init.minor = FUSE_KERNEL_MINOR_VERSION;
  answer.init.max_write = 4096;
  must(static_cast<int>(write(device, &answer, sizeof answer)), "greeting the kernel");
}

const Case kFuse("fuse", {"server", "fuse-server", "peer|sleeping|unknown"}, [] {
  const int device = must(open("/dev/fuse", O_RDWR | O_CLOEXEC), "/dev/fuse");
  must(unshare(CLONE_NEWNS), "mounts of its own");
  must(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mounts of its own");
  const std::string where = scratch("fuse");
  mkdir(where.c_str(), 0700);
  const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
  must(mount("zoo", where.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()),
       "mounting a FUSE file system");
  process("fuse-server", [=] { serveFuse(device); });
  close(device);
  open((where + "/file").c_str(), O_RDONLY);
});

const LoneCase kDisk("disk", {"disk"}, readDisk);

const LoneCase kDiskHolder("mutex-disk", {"disk", "saver", "lock|sleeping"}, [] {
  static std::mutex mutex;
  thread(
      "saver", [] { mutex.lock(); }, readDisk);
  mutex.lock();
});

const LoneCase kStorm("fsync-storm", {"disk", "syncer", "disk"}, [] {
  for (const char* name : {"a", "b", "c", "d"}) {
    process(
        "syncer", [] {},
        [name] {
          const std::string data(size_t{8} << 20, 'z');
          const int file = openFile(name);
          while (pwrite(file, data.data(), data.size(), 0) > 0) fsync(file);
        });
  }
  const int file = openFile("record");
  while (pwrite(file, "z", 1, 0) > 0) fsync(file);
});

// The pages of a mapped file, which the kernel is made to forget each time.
const LoneCase kFaults("page-faults", {"disk"}, [] { touchMapping(size_t{64} << 20, true); });

}  // namespace
}  // namespace zoo
