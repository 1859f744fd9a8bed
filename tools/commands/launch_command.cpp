#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "client/include/quorvel.h"
#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/launches/launch_notify.h"
#include "tools/launches/launch_process.h"
#include "tools/launches/launch_record.h"

namespace quorvelctl {
namespace {

using std::chrono::steady_clock;

constexpr int kLaunchFailed = 125;
/// How long the daemon remembers a begin.
constexpr auto kForgottenAfter = std::chrono::seconds(60);
/// How long an ended process waits for the daemon's look at it, and for the record or the word that there is
/// none. A daemon that has ended is noticed.
constexpr auto kRecordLimit = std::chrono::seconds(4);

struct LaunchArguments {
  std::string bundleID;
  bool resume = false;
};

void say(const std::string& message) {
  std::fprintf(stderr, "quorvelctl: %s\n", message.c_str());
}

/// The signals that a person or a service manager ends a command with, and the news of its end: blocked, and
/// read from a descriptor. For the rest of this process's life.
class Signals {
 public:
  Signals() {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD}) sigaddset(&taken, signal);
    sigprocmask(SIG_BLOCK, &taken, &before_);
    signal(SIGCHLD, SIG_DFL);  // where it is ignored, an ended process is gone at once
    descriptor_ = Descriptor(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
  }

  int descriptor() const { return descriptor_.get(); }
  const sigset_t& before() const { return before_; }

  /// Passes on what waits. What a terminal sends the command has got already, as one of the terminal's
  /// foreground processes.
  void passOnTo(pid_t pid) const {
    signalfd_siginfo info{};
    while (read(descriptor_.get(), &info, sizeof info) == sizeof info) {
      const bool fromTerminal = info.ssi_code == SI_KERNEL;
      if (info.ssi_signo != SIGCHLD && !fromTerminal) kill(pid, static_cast<int>(info.ssi_signo));
    }
  }

 private:
  sigset_t before_{};
  Descriptor descriptor_;
};

/// One launch, from its announcement to the command's end.
class Launch {
 public:
  Launch(Context& context, const LaunchArguments& arguments, uint64_t startMs)
      : arguments_(arguments),
        startMs_(startMs),
        process_(context.command, signals_.before(), notifications_.address()),
        record_(context) {}

  /// The command's exit status.
  int run();

 private:
  void begin();
  void end(int result);
  void takeNotifications();
  void waitForRecord();

  const LaunchArguments& arguments_;
  const uint64_t startMs_;
  const Signals signals_;
  const NotifySocket notifications_;
  LaunchProcess process_;
  LaunchRecord record_;
  const steady_clock::time_point begun_ = steady_clock::now();
  bool isInFlight_ = false;  ///< the daemon knows of the begin and not of the end
  uint64_t endMs_ = 0;       ///< 0: the end was not announced
};

void Launch::begin() {
  const int error = qv_activation_begin(process_.pid(), arguments_.bundleID.c_str(), QV_STATE_FOREGROUND,
                                        arguments_.resume ? QV_TYPE_RESUME : QV_TYPE_LAUNCH, startMs_, 0);
  if (error < 0) say(std::string("the launch is not tracked: ") + std::strerror(-error));
  isInFlight_ = error >= 0;
}

void Launch::end(int result) {
  if (!std::exchange(isInFlight_, false)) return;
  if (steady_clock::now() - begun_ >= kForgottenAfter) {
    say("the command was not up within a minute, the daemon has dropped the launch");
    return;
  }
  // 32 and 33 are the daemon's own.
  const int told = result == 32 || result == 33 ? 1 : result;
  const uint64_t endMs = qv_wall_ms();
  const int error =
      qv_activation_end(process_.pid(), arguments_.bundleID.c_str(), QV_STATE_FOREGROUND, told, endMs);
  if (error < 0) say(std::string("the end of the launch can't be announced: ") + std::strerror(-error));
  if (error >= 0) endMs_ = endMs;
}

void Launch::takeNotifications() {
  while (const std::optional<NotifyMessage> message = notifications_.receive()) {
    if (!comesFromUs(*message)) continue;
    if (hasLine(message->text, "READY=1")) end(0);
    // A barrier is between the command and us.
    if (!hasLine(message->text, "BARRIER=1")) notifyManager(message->text);
  }
}

/// The daemon takes its look at the system after the end was announced. Until it has, the ended process must
/// stay, or nothing would be known of what it spent.
void Launch::waitForRecord() {
  if (endMs_ == 0) return;
  switch (record_.await(process_.pid(), startMs_, endMs_, kRecordLimit)) {
    case LaunchRecord::Outcome::recorded:
    case LaunchRecord::Outcome::noneIsMade:
      return;
    case LaunchRecord::Outcome::leftOut:
      return say("the launch is not recorded: " + printable(record_.reason()));
    case LaunchRecord::Outcome::noWord:
      return say("the daemon has not recorded the launch; its log says why");
  }
}

int Launch::run() {
  if (process_.pid() < 0 || notifications_.descriptor() < 0 || signals_.descriptor() < 0) {
    say(std::string("can't start a process: ") + std::strerror(errno));
    return kLaunchFailed;
  }
  begin();
  process_.release();
  int status = 0;
  while (!process_.hasEnded(status)) {
    std::array<pollfd, 3> ready{
        {{signals_.descriptor(), POLLIN, 0}, {notifications_.descriptor(), POLLIN, 0}, {qv_fd(), POLLIN, 0}}};
    poll(ready.data(), ready.size(), -1);
    if (ready[2].revents != 0) qv_process();
    takeNotifications();
    signals_.passOnTo(process_.pid());
  }
  takeNotifications();  // its last words
  end(status);
  waitForRecord();
  process_.reap();
  return status;
}

void launch(Context& context, const LaunchArguments& arguments) {
  const uint64_t startMs = qv_wall_ms();
  if (context.command.empty()) {
    context.fail("which command? quorvelctl launch [--resume] BUNDLE-ID -- COMMAND...", kWrongUsage);
    return;
  }
  if (arguments.bundleID.empty() || arguments.bundleID.size() > QV_TEXT_MAX) {
    context.fail(arguments.bundleID.empty() ? "the bundle ID is empty" : "the bundle ID is too long",
                 kWrongUsage);
    return;
  }
  // The client library, and the command if it speaks to the daemon, know the root from the environment.
  if (!context.root.empty()) setenv("QUORVELD_ROOT", std::filesystem::absolute(context.root).c_str(), 1);
  if (const int error = qv_connect(); error < 0) {
    say("no daemon to announce the launch to: " + std::string(std::strerror(-error)));
    qv_disconnect();
    context.status = becomeCommand(context.command);
    return;
  }
  context.status = Launch(context, arguments, startMs).run();
  qv_disconnect();
}

}  // namespace

void addLaunchCommand(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<LaunchArguments>();
  CLI::App* command = app.add_subcommand(
      "launch",
      "Start a command and announce its launch: quorvelctl launch [--resume] BUNDLE-ID -- COMMAND...");
  command->add_option("BUNDLE-ID", arguments->bundleID, "The application, as com.example.viewer")->required();
  command->add_flag("--resume", arguments->resume, "Announce a resume, not a launch");
  command->footer(
      "It is up when it says READY=1 (sd_notify(3)), or else when it has ended. "
      "Exit status: the command's, or\n"
      "128 + n after signal n; 127 it was not found, 126 it can't be run, 125 no process could be made.");
  command->callback([arguments, &context] { launch(context, *arguments); });
}

}  // namespace quorvelctl
