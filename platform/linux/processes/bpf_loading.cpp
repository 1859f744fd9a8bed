#include "platform/linux/processes/bpf_loading.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/passed_descriptors.h"
#include "platform/linux/processes/bpf_object.h"

namespace quorveld::linux_platform {

namespace {

using SteadyClock = std::chrono::steady_clock;

/// What the kernel's verifier may say of a program: why it refuses it, or how long it took. Without a buffer
/// of ours libbpf has a refused program verified again and again, for a log of each instruction in a buffer
/// that doubles: seconds, where one refusal takes milliseconds.
constexpr size_t kVerifierLogBytes = 4096;
/// BPF_LOG_STATS of the kernel (linux/bpf_verifier.h): errors and statistics, no instructions.
constexpr uint32_t kVerifierLogLevel = 4;

/// Many times what loading takes. A copy of a process with threads may find a lock taken for ever.
constexpr std::chrono::seconds kPatience(2);
/// For a killed copy to end. The kernel may keep one from it, in a call that can't be interrupted.
constexpr std::chrono::milliseconds kEndPatience(1000);

constexpr size_t kMaxMessageBytes = 512;
/// What the copy says: a descriptor comes with it; why there will be none; a line for the log.
enum MessageKind : char { kDescriptor = 'd', kReason = 'r', kLine = 'l' };

/// In the copy: where it says all that. libbpf's callback takes nothing of its caller's.
int parentSocket = -1;

void say(MessageKind kind, std::string_view text, int descriptor = -1) {
  std::array<char, kMaxMessageBytes> bytes;
  bytes[0] = kind;
  const size_t length = text.copy(bytes.data() + 1, bytes.size() - 1) + 1;
  iovec part{bytes.data(), length};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (descriptor < 0) {
    (void)::sendmsg(parentSocket, &header, MSG_NOSIGNAL);
  } else {
    const PassedDescriptor passed(header, descriptor);
    (void)::sendmsg(parentSocket, &header, MSG_NOSIGNAL);
  }
}

[[gnu::format(printf, 2, 0)]] int sayLine(libbpf_print_level level, const char* format, va_list arguments) {
  if (level == LIBBPF_DEBUG) return 0;
  std::array<char, kMaxMessageBytes> line;
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  say(kLine, line.data());
  return length;
}

struct CloseObject {
  void operator()(bpf_object* object) const { bpf_object__close(object); }
};

/// The copy's life. Empty when it has handed over what was loaded, else the reason.
std::string loadAndHandOver(BpfPass pass) {
  const bool walks = pass == BpfPass::taskWalk;
  const unsigned char* begin = walks ? quorveld_task_walk_begin : quorveld_task_iterator_begin;
  const unsigned char* end = walks ? quorveld_task_walk_end : quorveld_task_iterator_end;
  auto options = noOptions<bpf_object_open_opts>();
  options.object_name = walks ? "task_walk" : "task_iterator";
  const std::unique_ptr<bpf_object, CloseObject> object(
      bpf_object__open_mem(begin, static_cast<size_t>(end - begin), &options));
  if (!object) return bpfReason("BPF object", errno);
  bpf_program* program = bpf_object__next_program(object.get(), nullptr);
  std::array<char, kVerifierLogBytes> verifierLog{};
  bpf_program__set_log_level(program, kVerifierLogLevel);
  bpf_program__set_log_buf(program, verifierLog.data(), verifierLog.size());
  if (const int error = bpf_object__load(object.get())) {
    return bpfReason(walks ? "BPF (task walk)" : "BPF (task iterator)", -error);
  }
  const int sampleArrays = bpf_object__find_map_fd_by_name(object.get(), "sample_arrays");
  const int shared = bpf_object__find_map_fd_by_name(object.get(), ".data.pass");
  if (shared < 0 || sampleArrays < 0) return "BPF object: maps are missing";
  const bpf_link* link = walks ? nullptr : bpf_program__attach_iter(program, nullptr);
  if (!walks && !link) return bpfReason("BPF task iterator", errno);
  for (const int descriptor : {bpf_program__fd(program), sampleArrays, shared})
    say(kDescriptor, "", descriptor);
  if (link) say(kDescriptor, "", bpf_link__fd(link));
  return {};
}

[[noreturn]] void beCopy(BpfPass pass, int socket, pid_t parent) {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);  // it has ended before that held
  // A copy that is stuck would keep the instance's lock, its listening socket and its clients' connections.
  constexpr int kSocket = STDERR_FILENO + 1;
  if (::dup2(socket, kSocket) < 0) ::_exit(1);
  (void)::syscall(SYS_close_range, kSocket + 1, UINT_MAX, 0);
  parentSocket = kSocket;
  libbpf_set_print(sayLine);
  const std::string reason = loadAndHandOver(pass);
  if (!reason.empty()) say(kReason, reason);
  ::_exit(0);
}

/// Whether a load has taken all of the patience. Another program would meet with what held that one up, and a
/// source stays for good: a machine that was too busy this once is looked at through /proc until the daemon
/// is started anew.
std::atomic<bool> tookTooLong = false;
constexpr const char* kTooLong = "BPF: loading takes too long";

/// What the copy said. `why` is set when that isn't all that it was to hand over.
std::vector<UniqueFd> receiveAll(int socket, size_t wanted, std::string& why) {
  std::vector<UniqueFd> descriptors;
  const auto deadline = SteadyClock::now() + kPatience;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    pollfd readable{socket, POLLIN, 0};
    if (left <= 0 || ::poll(&readable, 1, static_cast<int>(left)) == 0) {
      tookTooLong = true;
      why = kTooLong;
      return {};
    }
    std::array<char, kMaxMessageBytes> bytes;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
    iovec part{bytes.data(), bytes.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    const ssize_t length = ::recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    takeDescriptors(header, descriptors);
    const std::string text(bytes.data() + 1, static_cast<size_t>(length) - 1);
    if (bytes[0] == kLine) logDebug("Process table: %s", text.c_str());
    if (bytes[0] == kReason) why = text;
  }
  if (descriptors.size() == wanted) return descriptors;
  if (why.empty()) why = "BPF: the process that loads it has ended early";
  return {};
}

/// Waits for a killed copy to end. One that doesn't is left behind, until this process ends: at most one for
/// each program.
void collect(pid_t copy) {
  const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, copy, 0)));
  pollfd ended{process.get(), POLLIN, 0};
  const auto deadline = SteadyClock::now() + kEndPatience;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    if (left <= 0 || ::poll(&ended, 1, static_cast<int>(left)) >= 0 || errno != EINTR) break;
  }
  if (::waitpid(copy, nullptr, WNOHANG) == 0) logDebug("Process table: the process that loads BPF is stuck");
}

}  // namespace

std::string bpfReason(const char* what, int error) {
  if (error == EPERM) return "BPF: Operation not permitted, it takes CAP_BPF and CAP_PERFMON";
  return std::string(what) + ": " + std::strerror(error);
}

std::optional<LoadedBpf> loadBpf(BpfPass pass, std::string& why) {
  if (tookTooLong) {
    why = kTooLong;
    return std::nullopt;
  }
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    why = bpfReason("BPF: socketpair", errno);
    return std::nullopt;
  }
  const UniqueFd ours(ends[0]);
  UniqueFd theirs(ends[1]);
  // A copy, and no program of its own: it has this process's privileges, whatever they are, and most of its
  // memory is this process's too.
  const pid_t parent = ::getpid();
  const pid_t copy = ::fork();
  if (copy == 0) beCopy(pass, theirs.get(), parent);
  if (copy < 0) {
    why = bpfReason("BPF: fork", errno);
    return std::nullopt;
  }
  theirs.reset();
  std::vector<UniqueFd> descriptors = receiveAll(ours.get(), pass == BpfPass::taskWalk ? 3 : 4, why);
  ::kill(copy, SIGKILL);  // it has said all, or never will
  collect(copy);
  if (descriptors.empty()) return std::nullopt;
  LoadedBpf loaded{std::move(descriptors[0]), std::move(descriptors[1]), std::move(descriptors[2]), {}};
  if (descriptors.size() > 3) loaded.link = std::move(descriptors[3]);
  return loaded;
}

}  // namespace quorveld::linux_platform
