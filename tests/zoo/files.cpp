// Files: their locks, and the disk below them.

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "tests/zoo/zoo.h"

namespace zoo {
namespace {

/// A file of this program alone, which goes with the daemon's folder.
int openFile(const char* name = "file", int flags = 0) {
  const std::string root = std::getenv("QUORVELD_ROOT");
  const std::string path = root + "/zoo-" + std::to_string(getpgrp()) + "-" + name;
  return must(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | flags, 0600), "a file");
}

/// Locks that, or waits for it.
Action flocking(const char* name = "file") {
  return [name] { flock(openFile(name), LOCK_EX); };
}

void lockRecord(int command) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  const int file = openFile();
  while (fcntl(file, command, &whole) < 0) nap(50);
}

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
  process("keeper", flocking());
  flock(openFile(), LOCK_EX);
});

// As databases do, that give up after a while.
const Case kRetry("record-lock-retry", {"file-lock", "keeper", "sleeping"}, [] {
  process("keeper", [] { lockRecord(F_SETLK); });
  lockRecord(F_SETLK);
});

const Case kFlockRetry("flock-retry", {"file-lock", "keeper", "sleeping"}, [] {
  process("keeper", flocking());
  const int file = openFile();
  while (flock(file, LOCK_EX | LOCK_NB) < 0) nap(50);
});

const Case kFlockStopped("flock-stopped", {"stopped", "keeper", "file-lock|sleeping"}, [] {
  process("keeper", flocking(), [] { raise(SIGSTOP); });
  flock(openFile(), LOCK_EX);
});

const Case kFlocks("deadlock-files", {"deadlock", "rival", "file-lock|sleeping"}, [] {
  flock(openFile("mine"), LOCK_EX);
  process("rival", flocking("theirs"), flocking("mine"));
  flock(openFile("theirs"), LOCK_EX);
});

/// Reads past the page cache, for ever.
void readDisk() {
  constexpr size_t kBytes = size_t{8} << 20;
  const int file = openFile("data", O_DIRECT);
  void* piece = std::aligned_alloc(4096, kBytes);
  std::memset(piece, 'z', kBytes);
  must(static_cast<int>(pwrite(file, piece, kBytes, 0)), "writing past the page cache");
  while (pread(file, piece, kBytes, 0) > 0) {
  }
}

const LoneCase kDisk("disk", {"disk"}, readDisk);

const LoneCase kDiskHolder("mutex-disk", {"disk", "saver", "lock|sleeping"}, [] {
  static std::mutex mutex;
  thread("saver", taking(mutex), readDisk);
  mutex.lock();
});

/// Writes so much into a file and has it written to the disk, for ever.
void saveForever(const char* name, size_t bytes) {
  const std::string data(bytes, 'z');
  const int file = openFile(name);
  while (pwrite(file, data.data(), data.size(), 0) > 0) fsync(file);
}

const LoneCase kStorm("fsync-storm", {"disk", "syncer"}, [] {
  for (const char* name : {"a", "b", "c", "d"})
    process("syncer", {}, [name] { saveForever(name, size_t{8} << 20); });
  saveForever("record", 1);
});

// The pages of a mapped file, which the kernel is made to forget each time.
const LoneCase kFaults("page-faults", {"disk"}, [] {
  const std::string data(size_t{64} << 20, 'z');
  const int file = openFile("mapped");
  must(write(file, data.data(), data.size()) < 0 ? -1 : fsync(file), "writing a file");
  while (true) {
    posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
    auto* mapping = static_cast<char*>(mmap(nullptr, data.size(), PROT_READ, MAP_SHARED, file, 0));
    madvise(mapping, data.size(), MADV_RANDOM);
    for (size_t at = 0; at < data.size(); at += 4096) static_cast<volatile char*>(mapping)[at];
    munmap(mapping, data.size());
  }
});

}  // namespace
}  // namespace zoo
