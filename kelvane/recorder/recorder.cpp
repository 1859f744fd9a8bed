#include "kelvane/recorder/recorder.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/recorder/recorder_instance.h"
#include "kelvane/recording/kernel_view.h"
#include "kelvane/recording/page_drain.h"
#include "kelvane/recording/recorded_events.h"
#include "kelvane/recording/recorder_folder.h"

namespace kelvane {
namespace {

constexpr std::chrono::milliseconds kControlWait{10'000};
/// Whoever has a file of the instance open, to write a mark perhaps, keeps it from being removed.
constexpr std::chrono::milliseconds kRemovalPoll{10};

struct FreeInstance {
  void operator()(tracefs_instance* instance) const { recorder_instance_free(instance); }
};
using Instance = std::unique_ptr<tracefs_instance, FreeInstance>;

/// "kelvane" on the system; a private root has its own, so that neither reads the other's events.
std::string instanceName(const std::string& folder) {
  if (folder == "/run/kelvane") return "kelvane";
  std::error_code error;
  const std::string whole = std::filesystem::canonical(folder, error);
  char name[32];
  std::snprintf(name, sizeof name, "kelvane-%016zx", std::hash<std::string>{}(error ? folder : whole));
  return name;
}

/// Removes the instance; false, with errno, if it is still there.
bool removeInstance(const Instance& instance) {
  const Deadline deadline(kControlWait);
  while (!recorder_instance_remove(instance.get())) {
    if (errno != EBUSY || deadline.passed()) return false;
    std::this_thread::sleep_for(kRemovalPoll);
  }
  return true;
}

/// Switches the event on; empty if it is, else why not.
std::string enable(const Instance& instance, const EventSource& source) {
  switch (recorder_instance_enable(instance.get(), source.system, source.name, source.filter)) {
    case RECORDER_EVENT_ON:
      return {};
    case RECORDER_EVENT_ABSENT:
      return "this kernel has no such event";
    case RECORDER_EVENT_FILTER_REFUSED:
      return std::string("this kernel doesn't take the filter ") + source.filter;
    case RECORDER_EVENT_FAILED:
      break;
  }
  return errorText(errno);
}

/// Empty when the instance records as it should, else why not.
std::string configure(const Instance& instance, size_t bufferKb, std::vector<Omission>& leftOut) {
  if (const char* failed = recorder_instance_configure(instance.get(), bufferKb)) {
    return std::string(failed) + ": " + errorText(errno);
  }
  for (const EventSource& source : kEventSources) {
    const std::string missing = enable(instance, source);
    if (missing.empty()) continue;
    if (source.kind == RecordedKind::contextSwitch) return std::string(source.name) + ": " + missing;
    leftOut.push_back({std::string("event ") + source.name, missing});
  }
  return {};
}

/// The kernel's word for why there is no tracing, and the reason behind it: one that is locked down for
/// confidentiality (kernel_lockdown(7)) has tracefs without its files.
std::string whyNoTracing(int error) {
  const FileText mode = readFileAt(AT_FDCWD, "/sys/kernel/security/lockdown", kMaxProcFileBytes);
  const bool confidential = mode.text.find("[confidentiality]") != std::string::npos;
  return errorText(error) +
         (confidential ? "; the kernel is locked down for confidentiality, which allows no tracing" : "");
}

/// Makes and configures the instance `name` anew.
std::string makeInstance(const std::string& name, size_t bufferKb, const RecorderFolder& folder,
                         std::vector<Omission>& leftOut) {
  if (const std::string foreign = foreignThreads(); !foreign.empty()) return foreign;
  if (!recorder_mount_tracefs()) return "tracefs can't be mounted: " + whyNoTracing(errno);
  bool isNew = false;
  Instance instance(recorder_instance_make(name.c_str(), &isNew));
  if (instance && !isNew) {
    // Left behind by a recorder whose folder was removed.
    if (!removeInstance(instance)) return name + ": " + errorText(errno);
    instance.reset(recorder_instance_make(name.c_str(), &isNew));
  }
  if (!instance) return "the tracefs instance " + name + " can't be made: " + whyNoTracing(errno);
  const std::unique_ptr<char, decltype(&free)> path(recorder_instance_path(instance.get()), free);
  std::string error = path ? configure(instance, bufferKb, leftOut) : errorText(errno);
  if (error.empty() && !(folder.forgetPast(kernelNs()) && folder.linkInstance(path.get()))) {
    error = RecorderFolder::path() + ": " + errorText(errno);
  }
  if (!error.empty()) removeInstance(instance);
  return error;
}

}  // namespace

ControlResult startRecorder(size_t bufferKb) {
  ControlResult result;
  const auto folder = RecorderFolder::make(Deadline(kControlWait), result.error);
  if (!folder) return result;
  if (const UniqueFd running = folder->openInstance()) {
    result.wasSo = true;
    result.bufferKb = readBufferKb(running.get(), 0);
    return result;
  }
  result.error = makeInstance(instanceName(RecorderFolder::path()), bufferKb, *folder, result.leftOut);
  return result;
}

ControlResult stopRecorder() {
  ControlResult result;
  std::error_code unknown;
  if (!std::filesystem::exists(RecorderFolder::path(), unknown) && !unknown) {
    result.wasSo = true;
    return result;
  }
  const auto folder = RecorderFolder::open(Deadline(kControlWait), result.error);
  if (!folder) return result;
  const std::string path = folder->instancePath();
  if (!folder->openInstance()) {
    result.wasSo = true;
  } else {
    bool isNew = false;
    const Instance instance(recorder_instance_make(std::filesystem::path(path).filename().c_str(), &isNew));
    if (!instance || !removeInstance(instance)) {
      result.error = path + ": " + errorText(errno);
      return result;
    }
  }
  folder->unlinkInstance();
  if (!folder->forgetPast(kernelNs())) result.error = RecorderFolder::path() + ": " + errorText(errno);
  return result;
}

}  // namespace kelvane
