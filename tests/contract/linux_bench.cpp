#include <signal.h>
#include <sys/mman.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <type_traits>

#include "abi/messages.h"
#include "platform/linux/linux_platform.h"
#include "tests/contract/bench.h"
#include "tests/linux/scratch_root.h"

namespace quorveld::contract {

namespace {

using platform::PreferenceDictionary;

/// Speaks D-Bus to the daemon's socket from a thread of its own, since the main thread serves the other end.
class LinuxClient final : public Client {
 public:
  explicit LinuxClient(const std::string& socket)
      : memory_(memfd_create("contract", MFD_CLOEXEC | MFD_ALLOW_SEALING)) {
    post([this, socket] {
      sd_bus_new(&bus_);
      sd_bus_set_address(bus_, ("unix:path=" + socket).c_str());
      sd_bus_negotiate_fds(bus_, 1);
      sd_bus_start(bus_);
      sd_bus_flush(bus_);
    });
  }
  ~LinuxClient() override {
    post([this] {
      sd_bus_close_unref(bus_);
      ended_ = true;
    });
    thread_.join();
    ::close(memory_);
  }

  void send(const sim::SimMessage& message) override {
    post([this, message] {
      sd_bus_message* call = nullptr;
      sd_bus_message_new_method_call(bus_, &call, nullptr, QV_MESSAGE_PATH, QV_MESSAGE_INTERFACE,
                                     QV_MESSAGE_MEMBER);
      sd_bus_message_open_container(call, 'a', "{sv}");
      for (const auto& [key, value] : message) append(call, key.c_str(), value);
      sd_bus_message_close_container(call);
      transmit(call);
    });
  }

  void sendMemory(size_t lengthBytes, char firstByte) override {
    if (ftruncate(memory_, static_cast<off_t>(lengthBytes)) != 0 || pwrite(memory_, &firstByte, 1, 0) != 1)
      abort();
    post([this] {
      sd_bus_message* call = nullptr;
      sd_bus_message_new_method_call(bus_, &call, nullptr, QV_MESSAGE_PATH, QV_MESSAGE_INTERFACE,
                                     QV_MESSAGE_MEMBER);
      sd_bus_message_append(call, QV_MESSAGE_SIGNATURE, 1, QV_KEY_SHMEM, "h", memory_);
      transmit(call);
    });
  }

  char firstByteOfMemory() override {
    char byte = 0;
    return pread(memory_, &byte, 1, 0) == 1 ? byte : '\0';
  }

  void disconnect() override {
    post([this] { sd_bus_close(bus_); });
  }

 private:
  static void append(sd_bus_message* call, const char* key,
                     const sim::SimMessage::value_type::second_type& value) {
    std::visit(
        [&](const auto& item) {
          using T = std::decay_t<decltype(item)>;
          if constexpr (std::is_same_v<T, int64_t>) sd_bus_message_append(call, "{sv}", key, "x", item);
          if constexpr (std::is_same_v<T, uint64_t>) sd_bus_message_append(call, "{sv}", key, "t", item);
          if constexpr (std::is_same_v<T, bool>) sd_bus_message_append(call, "{sv}", key, "b", int{item});
          if constexpr (std::is_same_v<T, std::string>)
            sd_bus_message_append(call, "{sv}", key, "s", item.c_str());
        },
        value);
  }

  void transmit(sd_bus_message* call) {
    sd_bus_message_set_expect_reply(call, 0);
    sd_bus_send(bus_, call, nullptr);
    sd_bus_flush(bus_);
    sd_bus_message_unref(call);
  }

  void post(std::function<void()> job) {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    posted_.notify_one();
  }

  void work() {
    while (!ended_) {
      std::unique_lock lock(mutex_);
      posted_.wait(lock, [this] { return !jobs_.empty(); });
      const auto job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job();
    }
  }

  const int memory_;
  sd_bus* bus_ = nullptr;  // the thread's, as is `ended_`
  bool ended_ = false;
  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<std::function<void()>> jobs_;
  std::thread thread_{[this] { work(); }};
};

std::string xmlOf(const platform::PreferenceValue& value) {
  return std::visit(
      [](const auto& item) -> std::string {
        using T = std::decay_t<decltype(item)>;
        if constexpr (std::is_same_v<T, bool>) return item ? "<true/>" : "<false/>";
        if constexpr (std::is_same_v<T, int64_t>) return "<integer>" + std::to_string(item) + "</integer>";
        if constexpr (std::is_same_v<T, double>) return "<real>" + std::to_string(item) + "</real>";
        if constexpr (std::is_same_v<T, std::string>) return "<string><![CDATA[" + item + "]]></string>";
        return "<array/>";
      },
      value.variant());
}

std::string listOf(const PreferenceDictionary& values) {
  std::string list = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>";
  for (const auto& [key, value] : values) list += "<key>" + key + "</key>" + xmlOf(value);
  return list + "</dict></plist>\n";
}

class LinuxBench final : public Bench {
 public:
  LinuxBench() {
    ::setenv("QUORVELD_LOG", "default", 1);
    std::filesystem::create_directories(root_ / "scratch");
    std::string error;
    platform_ = linux_platform::LinuxPlatform::create(error);
    EXPECT_TRUE(platform_) << error;
    platform::install(&platform_->platform());
  }
  ~LinuxBench() override { platform::install(nullptr); }

  const platform::Platform& platform() override { return platform_->platform(); }
  int32_t clientPid() override { return ::getpid(); }
  std::unique_ptr<Client> connect() override { return std::make_unique<LinuxClient>(root_ / QV_SOCKET_PATH); }
  void postNotification(const std::string& name, uint64_t state) override {
    replace("run/quorveld/notify/" + name, std::to_string(state));
  }
  void requestStatus() override { ::kill(::getpid(), SIGUSR1); }
  void requestReload() override { ::kill(::getpid(), SIGHUP); }

  std::string directory() override { return "/scratch"; }
  std::optional<std::string> content(const std::string& path) override {
    return root_.exists(path) ? std::optional(root_.read(path)) : std::nullopt;
  }
  void putLink(const std::string& path, const std::string& target) override {
    std::filesystem::create_symlink(root_ / target, root_ / path);
  }

  void userSets(const PreferenceDictionary& values, const std::string& domain) override {
    replace("var/mobile/Library/Preferences/" + domain + ".plist", listOf(values));
  }
  void putManaged(const PreferenceDictionary& values, const std::string& path) override {
    replace(path, listOf(values));
  }
  void breakManaged(const std::string& path) override { replace(path, "<plist><dict><key>"); }

 private:
  /// Writes a file as everyone should: aside, then renamed.
  void replace(const std::string& path, const std::string& text) {
    const std::filesystem::path target = root_ / path;
    const std::filesystem::path aside = target.parent_path() / ".aside";
    std::filesystem::create_directories(target.parent_path());
    std::ofstream(aside) << text;
    std::filesystem::rename(aside, target);
  }

  const linux_platform::ScratchRoot root_;
  std::unique_ptr<linux_platform::LinuxPlatform> platform_;
};

}  // namespace

std::unique_ptr<Bench> makeLinuxBench() {
  return std::make_unique<LinuxBench>();
}

}  // namespace quorveld::contract
