// What groups of processes are held to: frozen, throttled, short of memory.

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fstream>
#include <mutex>

#include "tests/zoo/zoo.h"

namespace zoo {
namespace {

struct Setting {
  const char* file;
  std::string value;
};

bool set(const std::string& group, const Setting& setting) {
  return static_cast<bool>(std::ofstream(group + "/" + setting.file) << setting.value << std::flush);
}

/// A group with that setting, named after this program, for scripts/zoo to remove; "" if there can be none.
/// `where` is a hierarchy.
std::string groupIn(const char* where, const Setting& setting) {
  const std::string group = std::string("/sys/fs/cgroup/") + where + "/zoo-" + std::to_string(getpgrp());
  mkdir(group.c_str(), 0755);
  return access((group + "/" + setting.file).c_str(), W_OK) == 0 && set(group, setting) ? group : "";
}

std::string group(const char* controller, const Setting& first, const Setting& second) {
  std::string found = groupIn(controller, first);
  if (found.empty()) found = groupIn("", second);
  if (found.empty()) skip(std::string("no group of the controller ") + controller + " can be made");
  return found;
}

void join(const std::string& group) {
  if (!set(group, {"cgroup.procs", "0"})) skip("the group " + group + " takes nobody");
}

std::string slowGroup() {
  return group("cpu", {"cpu.cfs_quota_us", "4000"}, {"cpu.max", "4000 100000"});
}

std::string smallGroup() {
  return group("memory", {"memory.limit_in_bytes", "24M"}, {"memory.max", "24M"});
}

const LoneCase kThrottled("throttled", {"throttled", "", "starved"}, [] {
  join(slowGroup());
  burn();
});

const LoneCase kThrottledByOthers("throttled-by-others", {"throttled", "greedy", "throttled|starved"}, [] {
  join(slowGroup());
  for (int i = 0; i < 2; ++i)
    process(
        "greedy", [] {}, burn);
  burn();
});

const LoneCase kThrottledHolder("mutex-throttled", {"throttled", "keeper", "lock|starved|sleeping"}, [] {
  auto& mutex = sharedMutex();
  const std::string slow = slowGroup();
  process(
      "keeper", [&] { pthread_mutex_lock(&mutex), join(slow); }, burn);
  pthread_mutex_lock(&mutex);
});

void freezeSoon(const std::string& group, const Setting& frozen) {
  process(
      "freezer", [] {}, [=] { nap(100), set(group, frozen), rest(); });
}

const Setting kOldThawed{"freezer.state", "THAWED"};
const Setting kOldFrozen{"freezer.state", "FROZEN"};
const Setting kThawed{"cgroup.freeze", "0"};
const Setting kFrozen{"cgroup.freeze", "1"};

std::string thawedGroup(const char* where, const Setting& thawed) {
  const std::string group = groupIn(where, thawed);
  if (group.empty()) skip(std::string("no group can be frozen by ") + thawed.file);
  return group;
}

const Case kFrozenOld("frozen-v1", {"frozen", "", "sleeping", "freezer"}, [] {
  const std::string group = thawedGroup("freezer", kOldThawed);
  freezeSoon(group, kOldFrozen);
  join(group);
  rest();
});

const char* unified() {
  return access("/sys/fs/cgroup/unified", F_OK) == 0 ? "unified" : "";
}

const Case kFrozenNew("frozen", {"frozen", "", "sleeping", "freezer"}, [] {
  const std::string group = thawedGroup(unified(), kThawed);
  freezeSoon(group, kFrozen);
  join(group);
  rest();
});

const Case kFrozenPeer("pipe-frozen", {"frozen", "feeder", "peer|sleeping", "freezer"}, [] {
  const std::string group = thawedGroup(unified(), kThawed);
  const Pipe pipe;
  process("feeder", [&] { close(pipe.reader), join(group); });
  close(pipe.writer);
  freezeSoon(group, kFrozen);
  readByte(pipe.reader);
});

const LoneCase kFileMemory("memory-limit", {"memory", "", "disk"}, [] {
  join(smallGroup());
  touchMapping(size_t{64} << 20, false);
});

const LoneCase kSwap("swapping", {"swapping", "", "memory|disk"}, [] {
  std::ifstream swaps("/proc/swaps");
  std::string line;
  std::getline(swaps, line);
  if (!std::getline(swaps, line)) skip("no swap is on");
  join(smallGroup());
  constexpr size_t kBytes = size_t{64} << 20;
  auto& memory = shared<std::array<char, kBytes>>();
  while (true) {
    for (size_t at = 0; at < kBytes; at += 4096) memory[at] = static_cast<char>(memory[at] + 1);
  }
});

const LoneCase kDiskLimit("disk-throttled", {"throttled", "", "disk"}, [] {
  struct stat file {};
  fstat(openFile("data"), &file);
  const std::string device =
      std::to_string(major(file.st_dev)) + ":" + std::to_string(minor(file.st_dev)) + " ";
  join(group("blkio", {"blkio.throttle.read_bps_device", device + "2000000"},
             {"io.max", device + "rbps=2000000"}));
  readDisk();
});

}  // namespace
}  // namespace zoo
