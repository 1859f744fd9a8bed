#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

#include "abi/hang_region.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/text.h"
#include "hangs/class_side.h"
#include "hangs/own_counters.h"
#include "hangs/qv_process_info.h"
#include "platform/device.h"
#include "platform/kernel.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

/// The executable path of `pid`, each byte that isn't printable replaced by '~': a process chooses its own
/// path, and it goes into file names, logs and reports.
std::optional<std::string> readProcessPath(int32_t pid) {
  std::optional<std::string> path = platform::current().kernel.executablePath(pid);
  if (!path) return std::nullopt;
  path->resize(std::min(path->find('\0'), std::min(path->size(), platform::kMaxPathBytes)));
  for (char& c : *path) {
    if (!std::isprint(static_cast<unsigned char>(c))) c = '~';
  }
  return path;
}

std::string lastPathComponent(const std::string& path) {
  const std::string name = path.substr(path.find_last_of('/') + 1);
  return name.empty() ? "[Unknown]" : name;
}

}  // namespace

std::unique_ptr<QVProcessInfo::ClassSide>& QVProcessInfo::classSideSlot() {
  static std::unique_ptr<ClassSide> slot;
  return slot;
}

void QVProcessInfo::initialize(platform::WorkQueue& workQueue) {
  classSideSlot() = std::make_unique<ClassSide>(workQueue);
}

QVProcessInfo::ClassSide& QVProcessInfo::classSide() {
  ClassSide* state = classSideSlot().get();
  if (!state) {
    std::fputs("quorveld: QVProcessInfo was used before it was initialised\n", stderr);
    std::abort();
  }
  state->workQueue.assertCurrent();
  return *state;
}

std::shared_ptr<QVProcessInfo> QVProcessInfo::startWatchingPid(
    int32_t pid, std::unique_ptr<platform::SharedMapping> sharedMem, const char* bundleID, uint32_t uid) {
  if (const auto existing = processForPid(pid)) {
    quorvelLog().standard("WARNING: %s was already being watched.", existing->description().c_str());
    return nullptr;
  }
  auto process = create(pid, std::move(sharedMem), bundleID, uid);
  if (!process) return nullptr;
  auto& processes = classSide().watchedProcesses;
  processes.push_back(process);
  countWatched(processes.size());
  return process;
}

std::shared_ptr<QVProcessInfo> QVProcessInfo::create(int32_t pid,
                                                     std::unique_ptr<platform::SharedMapping> sharedMem,
                                                     const char* bundleID, uint32_t uid) {
  const Log log = quorvelLog();
  std::optional<std::string> path = readProcessPath(pid);
  if (!path) {
    // The pid printed is that of the record, which has none yet: log readers match on this 0.
    log.standard("Unable to identify process name of pid %d", 0);
    return nullptr;
  }
  if (sharedMem->lengthBytes() < sizeof(QVSharedHangRegion)) {
    log.standard("Shared memory region smaller than expected: %zu < %zu", sharedMem->lengthBytes(),
                 sizeof(QVSharedHangRegion));
    return nullptr;
  }
  auto& header = *static_cast<QVSharedHangRegion*>(sharedMem->address());
  const uint32_t version = std::atomic_ref(header.protocolVersion).load(std::memory_order_relaxed);
  if (version != QV_HANG_PROTOCOL_VERSION) {
    log.standard("Client is not vending the current protocol version: %u", version);
    return nullptr;
  }
  std::string bundle = fromAscii(cutAtCharacter(bundleID ? bundleID : "", kMaxNameBytes));
  std::shared_ptr<QVProcessInfo> process(
      new QVProcessInfo(pid, std::move(sharedMem), std::move(*path), std::move(bundle), uid));
  log.info("New proc: %s(%u)", process->processPath_.c_str(), static_cast<uint32_t>(pid));
  return process;
}

QVProcessInfo::QVProcessInfo(int32_t pid, std::unique_ptr<platform::SharedMapping> region,
                             std::string processPath, std::string processBundleID, uint32_t uid)
    : pid_(pid),
      uid_(uid),
      region_(std::move(region)),
      shared_(static_cast<QVSharedHangRegion*>(region_->address())),
      slotsInRegion_((region_->lengthBytes() - offsetof(QVSharedHangRegion, slots)) / sizeof(hangEvent)),
      processPath_(std::move(processPath)),
      processName_(lastPathComponent(processPath_)),
      processBundleID_(std::move(processBundleID)) {}

QVProcessInfo::~QVProcessInfo() {
  quorvelLog().debug("dealloc for %s", processName_.c_str());
}

void QVProcessInfo::stopWatchingPid(int32_t pid) {
  auto& processes = classSide().watchedProcesses;
  const auto found = std::find_if(processes.begin(), processes.end(),
                                  [pid](const auto& process) { return process->pid_ == pid; });
  if (found == processes.end()) return;
  processes.erase(found);
  countWatched(processes.size());
}

void QVProcessInfo::stopWatchingAllPids() {
  ClassSide& state = classSide();
  if (!state.watchedProcesses.empty()) countWatched(0);
  state.watchedProcesses.clear();
  state.pending.clear();
  orderSampling();
}

std::shared_ptr<QVProcessInfo> QVProcessInfo::processForPid(int32_t pid) {
  const auto& processes = classSide().watchedProcesses;
  const auto found = std::find_if(processes.begin(), processes.end(),
                                  [pid](const auto& process) { return process->pid_ == pid; });
  return found == processes.end() ? nullptr : *found;
}

std::shared_ptr<QVProcessInfo> QVProcessInfo::processForFenceHangs() {
  const auto& processes = classSide().watchedProcesses;
  if (processes.empty()) return nullptr;
  return processes[platform::current().device.uniformRandom(static_cast<uint32_t>(processes.size()))];
}

std::string QVProcessInfo::description() const {
  return formatted("%s(%d)", processName_.c_str(), pid_);
}

}  // namespace quorveld
