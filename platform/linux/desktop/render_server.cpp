#include "platform/linux/desktop/render_server.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/base/utf8.h"
#include "platform/linux/desktop/screen_helper.h"
#include "platform/linux/desktop/session_bus.h"
#include "platform/linux/queues/event_loop.h"

namespace quorveld::linux_platform {

namespace {

constexpr uint64_t kHelperTimeUs = 3'000'000;

/// Starts `program` with `socket` as its descriptor 0; 0 or an errno.
int spawn(const std::string& program, int socket, UniqueFd& process) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, socket, STDIN_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);  // the daemon's threads hold its signals
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  std::string name = "quorveld";
  std::string argument = kScreenHelperArgument;
  const std::array<char*, 3> arguments = {name.data(), argument.data(), nullptr};
  pid_t pid = -1;
  const int result = ::posix_spawn(&pid, program.c_str(), &actions, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (result != 0) return result;
  process.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (process) return 0;
  const int error = errno;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  return error;
}

}  // namespace

/// What is on the screen and what is to be.
class Screen {
 public:
  Screen(std::string program, EventLoop& loop) : program_(std::move(program)), event_(loop.event()) {}

  /// Puts `text` in place of what is shown; nothing clears it.
  void show(std::optional<std::string> text) {
    wanted_ = std::move(text);
    unsent_ = true;
    if (!helper_) send();
  }

 private:
  /// A running helper; killed on destruction, and left to whoever reaps the daemon's children then.
  struct Helper {
    UniqueFd process;  ///< pidfd
    UniqueFd socket;

    Helper() = default;
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;
    ~Helper() { kill(); }

    void kill() const { (void)::syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0); }
  };

  void send() {
    if (!std::exchange(unsent_, false)) return;
    if (!wanted_ && shownId_ == 0) return;
    const auto bus = findSessionBus();
    if (!bus) return;
    const int result = start({*bus, shownId_, wanted_});
    if (result == 0) return;
    helper_.reset();
    complain(std::strerror(result));
  }

  int start(const ScreenRequest& request) {
    std::array<int, 2> ends;
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return errno;
    helper_ = std::make_unique<Helper>();
    helper_->socket.reset(ends[0]);
    const UniqueFd theirs(ends[1]);
    if (!sendScreenRequest(helper_->socket.get(), request)) return errno;
    if (const int error = spawn(program_, theirs.get(), helper_->process)) return error;
    sd_event_source* ended = nullptr;
    int result = sd_event_add_io(event_, &ended, helper_->process.get(), EPOLLIN, helperEnded, this);
    ended_.reset(ended);
    if (result < 0) return -result;
    sd_event_source* timer = nullptr;
    result = sd_event_add_time_relative(event_, &timer, CLOCK_MONOTONIC, kHelperTimeUs, 0, timeIsUp, this);
    timer_.reset(timer);
    return result < 0 ? -result : 0;
  }

  static int timeIsUp(sd_event_source*, uint64_t, void* self) noexcept {
    static_cast<Screen*>(self)->helper_->kill();
    return 0;
  }

  static int helperEnded(sd_event_source*, int, uint32_t, void* self) noexcept {
    static_cast<Screen*>(self)->finish();
    return 0;
  }

  void finish() {
    siginfo_t information{};
    (void)::waitid(P_PIDFD, static_cast<id_t>(helper_->process.get()), &information, WEXITED | WNOHANG);
    const ScreenAnswer answer = receiveScreenAnswer(helper_->socket.get());
    ended_.reset();
    timer_.reset();
    helper_.reset();
    shownId_ = answer.shownId;
    if (answer.failure.empty()) {
      complained_ = false;
    } else {
      complain(answer.failure.c_str());
    }
    send();
  }

  void complain(const char* reason) {
    if (!std::exchange(complained_, true)) logDefault("On-screen message not shown: %s", reason);
  }

  const std::string program_;
  sd_event* const event_;
  std::unique_ptr<Helper> helper_;
  EventSource ended_;
  EventSource timer_;
  std::optional<std::string> wanted_;
  bool unsent_ = false;
  bool complained_ = false;
  uint32_t shownId_ = 0;  // 0: nothing is shown
};

namespace {

class Port final : public platform::RenderPort {
 public:
  explicit Port(std::shared_ptr<Screen> screen) : screen_(std::move(screen)) {}

  void setDebugMessage(const char* text) override {
    screen_->show(text ? std::optional(wellFormedUtf8(text)) : std::nullopt);
  }

 private:
  std::shared_ptr<Screen> screen_;
};

}  // namespace

LinuxRenderServer::LinuxRenderServer(std::string program) : program_(std::move(program)) {}
LinuxRenderServer::~LinuxRenderServer() = default;

void LinuxRenderServer::useQueue(platform::WorkQueue& queue) {
  screen_ = std::make_shared<Screen>(program_, loopOf(queue));
}

std::unique_ptr<platform::RenderPort> LinuxRenderServer::port() {
  if (!screen_ || !findSessionBus()) return nullptr;
  return std::make_unique<Port>(screen_);
}

}  // namespace quorveld::linux_platform
