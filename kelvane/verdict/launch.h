#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/capture/captured_process.h"
#include "kelvane/capture/launched_look.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// What a thread did on the critical path of a launch, or several of one name.
struct PathShare {
  NamedThread thread;  // the one with most of it
  size_t threads = 0;
  std::string doing;  // a state's name, or "disk"
  uint64_t ns = 0;
  std::string function{};  // the one that most of it was in, by samples; empty: not told
};

/// The time between two marks of a launch that follow each other.
struct LaunchPhase {
  std::string from;  // "begin", "fork", "exec", "last exec", "first connection", "end"
  std::string to;
  NamedThread process{};  // whose mark `to` is; pid 0: the launch's own
  uint64_t fromNs = 0;
  uint64_t toNs = 0;
  std::optional<PathShare> mostly{};  // what took most of it
};

/// A process of the launch; times outside of it, and what is not recorded, are 0.
struct LaunchMember {
  pid_t pid = 0;
  std::string name;
  pid_t parent = 0;  // 0: it is the launched one
  size_t threads = 0;
  uint64_t madeNs = 0;
  uint64_t endedNs = 0;
  uint64_t runningNs = 0;
};

/// What is known of a launch besides its verdict.
struct Launch {
  LaunchedLook look;
  std::string name;  // of the launched process, as last known; empty: it is not
  bool isRecorded = false;
  std::vector<LaunchPhase> phases;
  std::vector<LaunchMember> processes;  // the launched one, then those that had the CPU for longest
  size_t processCount = 0;
  /// Most first. Where nothing is recorded, what the launched process's first thread did, by its samples.
  std::vector<PathShare> path;
  /// The thread that the verdict is about, with what is known of its process: samples, and nothing that the
  /// look saw.
  ProcessCapture followed;
};

}  // namespace kelvane
