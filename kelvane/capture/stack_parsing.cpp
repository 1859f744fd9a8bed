#include "kelvane/capture/stack_parsing.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <new>
#include <unordered_map>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/exit_status.h"
#include "kelvane/capture/file_request.h"
#include "kelvane/frames/unwinder.h"
#include "kelvane/sandbox/rights.h"

namespace kelvane {
namespace {

/// Unwinds one stack after the other. A module and a frame are published with the first stack that has them.
class Parser {
 public:
  Parser(bool symbolicate, const CopiedProcess& process, int socket, FindingsArea& parsed)
      : modules_(process.modules),
        files_(socket),
        parsed_(parsed),
        unwinder_(
            process.pid, modules_, [this](size_t index) { return files_.ask(static_cast<uint32_t>(index)); },
            symbolicate) {}

  void add(const CopiedStack& copied) {
    ProcessCapture part;
    UnwoundStack stack = unwinder_.unwind(copied.copy);
    StackSample sample{copied.copy.atNs, copied.copy.stoppedUs, {}, std::move(stack.cutOff)};
    for (const uint64_t address : stack.addresses) sample.frames.push_back(frameIndex(address, part));
    part.threads.emplace_back().facts.tid = copied.tid;
    part.threads.back().stack = std::move(sample);
    publish(part);
  }

  /// The kernel's are named already. Frames of one function are one: of many samples the path of functions is
  /// asked for.
  void add(const CopiedSample& sample) {
    ProcessCapture part;
    SampledStack& stack = part.samples.emplace_back();
    stack.times = sample.sample.times;
    stack.kernelFrames = sample.kernelFrames;
    for (const uint64_t address : unwinder_.unwind(sample.sample.stack).addresses) {
      auto [known, isNew] = functionOf_.try_emplace(address, 0);
      if (isNew) known->second = unwinder_.functionAt(address);
      stack.frames.push_back(
          frameIndex(functionFrame_.try_emplace(known->second, address).first->second, part));
    }
    publish(part);
  }

 private:
  void publish(ProcessCapture& part) {
    part.omissions = unwinder_.takeOmissions();
    if (files_.areHeldUp() && !saidHeldUp_) {
      part.omissions.push_back(
          {"user stacks", "the kernel held up a file of the process: they may end early"});
      saidHeldUp_ = true;
    }
    parsed_.publish(part);
  }

  /// Naming an address is by far the dearest step, and stacks share most of theirs.
  uint32_t frameIndex(uint64_t address, ProcessCapture& part) {
    auto [known, isNew] = frameOf_.try_emplace(address, static_cast<uint32_t>(frameOf_.size()));
    if (isNew) part.frames.push_back(describe(address, part));
    return known->second;
  }

  Frame describe(uint64_t address, ProcessCapture& part) {
    Frame frame = unwinder_.describe(address);
    if (frame.module < 0) return frame;
    const auto [known, isNew] = numberOf_.try_emplace(frame.module, static_cast<int32_t>(numberOf_.size()));
    if (isNew) {
      part.modules.push_back(
          {modules_[static_cast<size_t>(frame.module)].path, unwinder_.buildId(frame.module)});
    }
    frame.module = known->second;
    return frame;
  }

  const std::vector<MappedModule>& modules_;
  FileRequests files_;
  FindingsArea& parsed_;
  Unwinder unwinder_;
  bool saidHeldUp_ = false;
  std::unordered_map<uint64_t, uint32_t> frameOf_;     // address to index among the frames published
  std::unordered_map<uint64_t, uint64_t> functionOf_;  // address to its function's first
  std::unordered_map<uint64_t, uint64_t>
      functionFrame_;                              // a function's first address to the one that stands for it
  std::unordered_map<int32_t, int32_t> numberOf_;  // index of a module to that among those published
};

/// 0 to `count`, every second one after all others, and so on: whenever that is broken off, what is missing
/// lies evenly among what there is.
std::vector<size_t> sparseFirst(size_t count) {
  std::vector<size_t> order;
  if (count > 0) order.push_back(0);
  for (size_t step = std::bit_ceil(count) / 2; step > 0; step /= 2) {
    for (size_t index = step; index < count; index += 2 * step) order.push_back(index);
  }
  return order;
}

}  // namespace

void StackParsing::run(size_t number, const CopiedProcess& process, const Deadline& deadline) {
  const auto say = [&](const std::string& why) {
    ProcessCapture part;
    part.omissions.push_back({"user stacks", why});
    look_.publish(part);
  };
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
    return say("no way to parse them: " + errorText(errno));
  const timeval wait{0, std::chrono::microseconds(kFileWait).count()};
  static_assert(kFileWait < std::chrono::seconds(1));
  setsockopt(ends[1], SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  const UniqueFd own(ends[0]);
  UniqueFd theirs(ends[1]);
  const pid_t parent = getppid();
  const long child = syscall(SYS_clone, CLONE_PARENT | SIGCHLD, nullptr, nullptr, nullptr, nullptr);
  if (child == 0) parse(parent, theirs.get(), number, process);
  if (child < 0) return say("no process to parse them: " + errorText(errno));
  look_.noteProcess(static_cast<pid_t>(child));
  theirs = UniqueFd();
  serveFiles(own.get(), process.dir, process.modules, deadline);
}

void StackParsing::parse(pid_t parent, int socket, size_t number, const CopiedProcess& process) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kOrphaned);
  look_.unmap();
  FindingsArea& parsed = parsed_[number];
  for (FindingsArea& other : parsed_) {
    if (&other != &parsed) other.unmap();
  }
  descriptors_.push_back(socket);
  std::sort(descriptors_.begin(), descriptors_.end());
  closeAllBut(descriptors_);
  try {
    if (const std::string failure = dropAllRights(); !failure.empty()) {
      ProcessCapture part;
      part.omissions.push_back({"user stacks", failure});
      parsed.publish(part);
      _exit(0);
    }
    Parser parser(symbolicate_, process, socket, parsed);
    const CopiedStacks& stacks = process.stacks;
    for (const CopiedStack& stack : stacks.looks) parser.add(stack);
    for (const size_t index : sparseFirst(stacks.samples.size())) parser.add(stacks.samples[index]);
  } catch (const std::bad_alloc&) {
    _exit(kOutOfMemory);
  }
  _exit(0);
}

}  // namespace kelvane
