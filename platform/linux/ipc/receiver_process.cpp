#include "platform/linux/ipc/receiver_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/helper_programs.h"
#include "platform/linux/base/passed_descriptors.h"
#include "platform/linux/ipc/ipc_limits.h"

namespace quorveld::linux_platform {

namespace {

/// Above those that the new process gets them as, so that no dup2 meets another's source.
UniqueFd moveUp(UniqueFd fd) {
  return UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, kFirstFdNotInherited));
}

class SpawnSetup {
 public:
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
};

}  // namespace

std::unique_ptr<ReceiverProcess> ReceiverProcess::start(const std::string& guid, std::string& error) {
  std::unique_ptr<ReceiverProcess> process(new ReceiverProcess);
  if (!process->spawn(guid, error)) return nullptr;
  return process;
}

bool ReceiverProcess::spawn(const std::string& guid, std::string& error) {
  const auto failed = [&error](const char* what, int number) {
    error = std::string(what) + ": " + strerrordesc_np(number);
    return false;
  };
  std::array<int, 2> ends{-1, -1};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0)
    return failed("socketpair", errno);
  channel_ = UniqueFd(ends[0]);
  const UniqueFd theirs = moveUp(UniqueFd(ends[1]));
  fcntl(channel_.get(), F_SETFL, O_NONBLOCK);
  timer_ = moveUp(UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)));
  const UniqueFd pageFd = moveUp(UniqueFd(memfd_create("quorveld-receiver", MFD_CLOEXEC)));
  if (!theirs || !timer_ || !pageFd || ftruncate(pageFd.get(), sizeof(ReceiverPage)) != 0)
    return failed("descriptors", errno);
  void* const page = mmap(nullptr, sizeof(ReceiverPage), PROT_READ | PROT_WRITE, MAP_SHARED, pageFd.get(), 0);
  if (page == MAP_FAILED) return failed("mmap", errno);
  page_ = static_cast<ReceiverPage*>(page);

  SpawnSetup setup;
  posix_spawn_file_actions_adddup2(&setup.actions, theirs.get(), kReceiverChannel);
  posix_spawn_file_actions_adddup2(&setup.actions, pageFd.get(), kReceiverPageFd);
  posix_spawn_file_actions_adddup2(&setup.actions, timer_.get(), kReceiverTimer);
  posix_spawn_file_actions_addclosefrom_np(&setup.actions, kFirstFdNotInherited);
  const std::string program = helperProgram("quorveld-receiver");
  std::string name = "quorveld-receiver";
  std::string argument = guid;
  const std::array<char*, 3> arguments{name.data(), argument.data(), nullptr};
  const int result =
      posix_spawn(&pid_, program.c_str(), &setup.actions, &setup.attributes, arguments.data(), environ);
  if (result != 0) return failed(program.c_str(), result);
  pidFd_ = UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  if (pidFd_) return true;
  const int number = errno;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);  // it has hardly begun, and nothing of a client's
  return failed("pidfd_open", number);
}

ReceiverProcess::~ReceiverProcess() {
  if (page_) munmap(page_, sizeof(ReceiverPage));
}

bool ReceiverProcess::isHeldUp() const {
  constexpr size_t kEnough = 4096;
  std::error_code error;
  const std::string stat = readFile("/proc/" + std::to_string(pid_) + "/stat", kEnough, error).value_or("");
  const size_t name = stat.rfind(')');
  const char state = name != std::string::npos && name + 2 < stat.size() ? stat[name + 2] : 'Z';
  return state == 'S' || state == 'D';
}

bool ReceiverProcess::isStopped() const {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WNOHANG) == 0 && info.si_pid == pid_;
}

bool ReceiverProcess::takeTimeout() const {
  uint64_t times = 0;
  return read(timer_.get(), &times, sizeof times) == sizeof times;
}

void ReceiverProcess::measureAnew() const {
  const itimerspec when{{}, {0, std::chrono::nanoseconds(kReceiverPatience).count()}};
  timerfd_settime(timer_.get(), 0, &when, nullptr);
}

void ReceiverProcess::adopt(uint32_t connection, int socket, uint32_t handshake) {
  post({{PacketKind::adopt, connection, handshake}, socket, {}});
}

void ReceiverProcess::release(uint32_t connection, UniqueFd socket) {
  std::erase_if(waiting_, [&](const Outgoing& packet) {
    return packet.header.kind == PacketKind::adopt && packet.header.connection == connection;
  });
  const int number = socket.get();
  post({{PacketKind::release, connection, 0}, number, std::move(socket)});
}

void ReceiverProcess::post(Outgoing packet) {
  if (!waiting_.empty() || !send(packet)) waiting_.push_back(std::move(packet));
}

std::vector<UniqueFd> ReceiverProcess::takeUnsent() {
  std::vector<UniqueFd> sockets;
  for (Outgoing& packet : std::exchange(waiting_, {})) {
    if (packet.owned) sockets.push_back(std::move(packet.owned));
  }
  return sockets;
}

bool ReceiverProcess::flush() {
  while (!waiting_.empty() && send(waiting_.front())) waiting_.pop_front();
  return waiting_.empty();
}

bool ReceiverProcess::send(const Outgoing& packet) {
  iovec part{const_cast<PacketHeader*>(&packet.header), sizeof packet.header};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  const PassedDescriptor passed(header, packet.socket);
  return sendmsg(channel_.get(), &header, MSG_NOSIGNAL) == sizeof packet.header;
}

ReceiverProcess::Read ReceiverProcess::receive(Packet& packet) {
  static std::array<char, kMaxPacketBytes> bytes;
  iovec part{bytes.data(), bytes.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t received = recvmsg(channel_.get(), &header, MSG_CMSG_CLOEXEC);
  if (received < 0) return errno == EAGAIN || errno == EINTR ? Read::nothing : Read::end;
  packet.memory.reset();
  std::vector<UniqueFd> descriptors;  // one, but there would be room for another
  takeDescriptors(header, descriptors);
  if (!descriptors.empty()) packet.memory = std::move(descriptors.front());
  if (static_cast<size_t>(received) < sizeof packet.header) return Read::end;
  std::memcpy(&packet.header, bytes.data(), sizeof packet.header);
  packet.bytes = {bytes.data() + sizeof packet.header, static_cast<size_t>(received) - sizeof packet.header};
  return Read::packet;
}

void ReceiverProcess::kill() const {
  syscall(SYS_pidfd_send_signal, pidFd_.get(), SIGKILL, nullptr, 0);
}

const std::string& ReceiverProcess::reap() {
  siginfo_t info{};
  if (!howItEnded_.empty()) return howItEnded_;
  if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG) == 0 && info.si_pid == 0)
    return howItEnded_;
  howItEnded_ = (info.si_code == CLD_EXITED ? "status " : "signal ") + std::to_string(info.si_status);
  return howItEnded_;
}

}  // namespace quorveld::linux_platform
