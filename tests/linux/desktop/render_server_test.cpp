#include "platform/linux/desktop/render_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <future>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/queues/event_queues.h"
#include "tests/linux/scratch_root.h"
#include "tests/patience.h"
#include "tests/sim/sim_platform.h"

namespace quorveld::linux_platform {
namespace {

/// A session bus of the test's own; its address is QUORVELD_SESSION_BUS while it lives.
class PrivateBus {
 public:
  explicit PrivateBus(const std::string& directory) {
    const std::string address = "--address=unix:path=" + directory + "/bus";
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writing.get(), 3);
    std::array<std::string, 5> words = {"dbus-daemon", "--session", "--nofork", "--print-address=3", address};
    std::array<char*, 6> arguments{};
    std::transform(words.begin(), words.end(), arguments.begin(),
                   [](std::string& word) { return word.data(); });
    if (::posix_spawnp(&pid_, "dbus-daemon", &actions, nullptr, arguments.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    writing.reset();
    char first = 0;
    ready_ = pid_ > 0 && ::read(reading.get(), &first, 1) == 1;  // it prints when it listens
    ::setenv("QUORVELD_SESSION_BUS", ("unix:path=" + directory + "/bus").c_str(), 1);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  ~PrivateBus() {
    ::unsetenv("QUORVELD_SESSION_BUS");
    stop();
  }

  bool ready() const { return ready_; }
  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(std::exchange(pid_, -1), nullptr, 0);
  }

 private:
  pid_t pid_ = -1;
  bool ready_ = false;
};

/// A desktop that takes one call at a time and answers it when it takes the next one.
class Desktop {
 public:
  Desktop() {
    if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, std::getenv("QUORVELD_SESSION_BUS")) < 0 ||
        sd_bus_set_bus_client(bus_, true) < 0 || sd_bus_start(bus_) < 0 ||
        sd_bus_request_name(bus_, kService, 0) < 0) {
      ADD_FAILURE() << "no desktop on the bus";
    }
  }
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;
  ~Desktop() {
    sd_bus_message_unref(taken_);
    sd_bus_close_unref(bus_);
  }

  /// Leaves the call that it takes next unanswered.
  void dontAnswer() {
    answer();
    silent_ = true;
  }

  /// The next call as one line; "nothing" when none comes.
  std::string take() {
    answer();
    for (;;) {
      sd_bus_message* message = nullptr;
      const int result = sd_bus_process(bus_, &message);
      if (result < 0 ||
          (result == 0 && sd_bus_wait(bus_, std::chrono::microseconds(tests::kPatience).count()) <= 0))
        return "nothing";
      if (sd_bus_message_is_method_call(message, kService, nullptr) > 0) {
        taken_ = message;
        return describe();
      }
      sd_bus_message_unref(message);
    }
  }

 private:
  static constexpr const char* kService = "org.freedesktop.Notifications";

  std::string describe() {
    if (sd_bus_message_is_method_call(taken_, kService, "CloseNotification") > 0) {
      sd_bus_message_read(taken_, "u", &id_);
      return "close " + std::to_string(id_);
    }
    const char* application = nullptr;
    const char* icon = nullptr;
    const char* summary = nullptr;
    sd_bus_message_read(taken_, "suss", &application, &id_, &icon, &summary);
    return std::string(application) + " " + std::to_string(id_) + " " + summary;
  }

  void answer() {
    if (!taken_) return;
    if (std::exchange(silent_, false)) {
      taken_ = sd_bus_message_unref(taken_);
      return;
    }
    if (sd_bus_message_is_method_call(taken_, kService, "Notify") > 0) {
      sd_bus_reply_method_return(taken_, "u", id_ != 0 ? id_ : ++lastId_);
    } else {
      sd_bus_reply_method_return(taken_, nullptr);
    }
    taken_ = sd_bus_message_unref(taken_);
  }

  sd_bus* bus_ = nullptr;
  sd_bus_message* taken_ = nullptr;
  uint32_t id_ = 0;
  uint32_t lastId_ = 40;
  bool silent_ = false;
};

/// A bus that takes connections and says nothing, ever.
class SilentBus {
 public:
  explicit SilentBus(const std::string& directory)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const std::string path = directory + "/silent";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(socket_.get(), 8), 0);
    ::setenv("QUORVELD_SESSION_BUS", ("unix:path=" + path).c_str(), 1);
  }
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;
  ~SilentBus() { ::unsetenv("QUORVELD_SESSION_BUS"); }

 private:
  UniqueFd socket_;
};

size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class OnScreenMessage : public testing::Test {
 protected:
  OnScreenMessage() { server_.useQueue(*queue_); }
  ~OnScreenMessage() override { ::unsetenv("DBUS_SESSION_BUS_ADDRESS"); }

  void show(const char* text) {
    const auto port = server_.port();
    ASSERT_TRUE(port) << sim_.logs.dump();
    port->setDebugMessage(text);
  }
  /// Serves the queue until `done`.
  void serveUntil(const std::function<bool()>& done) {
    EXPECT_TRUE(tests::eventually([&] {
      if (!done()) sd_event_run(loopOf(*queue_).event(), 10'000);
      return done();
    }));
  }
  /// Serves the queue until the desktop has taken a call, which it returns.
  std::string callOn(Desktop& desktop) {
    auto call = std::async(std::launch::async, [&] { return desktop.take(); });
    serveUntil([&] { return call.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
    return call.get();
  }

  sim::SimPlatform sim_;  // for its log
  const ScratchRoot root_;
  LinuxQueues queues_;
  std::unique_ptr<platform::MainQueue> queue_ = queues_.createMain("work", platform::QoSClass::userInitiated);
  LinuxRenderServer server_{QUORVELD_PROGRAM};
};

TEST_F(OnScreenMessage, ReplacesTheLastOneAndIsCleared) {
  PrivateBus bus(root_ / "");
  if (!bus.ready()) GTEST_SKIP() << "no dbus-daemon";
  Desktop desktop;
  show("HANG:one");
  EXPECT_EQ(callOn(desktop), "quorveld 0 HANG:one");

  // Asked for while the desktop has not answered: only the last one is sent.
  show("HANG:two");
  show("HANG:thr\xe2\x82");
  EXPECT_EQ(callOn(desktop), "quorveld 41 HANG:thr\xEF\xBF\xBD\xEF\xBF\xBD");
  show(nullptr);
  EXPECT_EQ(callOn(desktop), "close 41");
  show(nullptr);
  show("HANG:four");
  EXPECT_EQ(callOn(desktop), "quorveld 0 HANG:four");

  // An answer that doesn't come is one complaint, and the message after it is shown all the same.
  show("HANG:unanswered");
  desktop.dontAnswer();
  EXPECT_EQ(callOn(desktop), "quorveld 42 HANG:unanswered");
  serveUntil([&] { return !sim_.logs.lines.empty(); });
  EXPECT_TRUE(sim_.logs.hasPrefix(platform::LogLevel::standard, "On-screen message not shown: "))
      << sim_.logs.dump();
  show("HANG:five");
  EXPECT_EQ(callOn(desktop), "quorveld 0 HANG:five");
  EXPECT_EQ(sim_.logs.lines.size(), 1u) << sim_.logs.dump();
}

TEST_F(OnScreenMessage, DesktopThatIsNotThereIsLoggedOnce) {
  const PrivateBus bus(root_ / "");
  if (!bus.ready()) GTEST_SKIP() << "no dbus-daemon";
  const size_t idle = openDescriptors();
  for (const char* text : {"HANG:one", "HANG:two"}) {
    show(text);
    EXPECT_GT(openDescriptors(), idle);
    serveUntil([&] { return openDescriptors() == idle; });
  }
  EXPECT_EQ(sim_.logs.lines.size(), 1u) << sim_.logs.dump();
}

TEST_F(OnScreenMessage, BusThatSaysNothingIsGivenUpAndHoldsNothingUp) {
  while (::waitpid(-1, nullptr, 0) > 0) {  // what another test has left
  }
  const SilentBus bus(root_ / "");
  show("HANG:one");
  serveUntil([&] { return !sim_.logs.lines.empty(); });
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "nothing is left to be reaped";
  show("HANG:two");
  const auto start = std::chrono::steady_clock::now();
  server_.~LinuxRenderServer();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_GT(::waitpid(-1, nullptr, 0), 0) << "killed, and left to be reaped";
  new (&server_) LinuxRenderServer();
}

TEST_F(OnScreenMessage, HasNoPortWithoutABus) {
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  EXPECT_FALSE(server_.port());
  EXPECT_TRUE(sim_.logs.lines.empty()) << sim_.logs.dump();
}

}  // namespace
}  // namespace quorveld::linux_platform
