#include "platform/linux/ipc/ipc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/ipc/client_shares.h"
#include "platform/linux/ipc/ipc_limits.h"
#include "platform/linux/queues/event_queues.h"
#include "platform/linux/wire/dbus_message.h"
#include "platform/linux/wire/message_limits.h"
#include "tests/linux/ipc/dbus_client.h"
#include "tests/linux/scratch_root.h"
#include "tests/patience.h"

namespace quorveld::linux_platform {
namespace {

using namespace std::chrono_literals;
using platform::IpcErrorKind;

constexpr uint32_t kSomebodyElse = 4711;

struct RecordingLog final : platform::Logs, platform::LogHandle {
  platform::LogHandle& handle(std::string_view, std::string_view) override { return *this; }
  uint32_t setSender(uint32_t uid) override { return std::exchange(sender, uid); }
  void system(std::string_view) override {}
  bool enabled(platform::LogLevel) const override { return true; }
  void write(platform::LogLevel, std::string_view text, const platform::LogEvent&) override {
    lines.emplace_back(text);
    senders.push_back(sender);
  }
  bool signpostsEnabled() const override { return false; }
  void signpostIntervalBegin(uint64_t, std::string_view) override {}
  void signpostIntervalEnd(uint64_t, std::string_view) override {}
  std::vector<std::string> lines;
  std::vector<uint32_t> senders;
  uint32_t sender = kSomebodyElse;
};

const char* name(IpcErrorKind kind) {
  constexpr const char* kNames[] = {"invalid", "interrupted", "termination", "other"};
  return kNames[static_cast<int>(kind)];
}

/// A daemon that writes down what it is told: "peer", "command 3 scroll", "invalid", "odd …".
class Daemon {
 public:
  Daemon() : queue_(queues_.createMain("com.corvix.test", platform::QoSClass::userInitiated)) {
    listener_ = ipc_.listen("com.corvix.quorveld", *queue_);
    listener_->setHandler([this](const platform::ListenerEvent& event) {
      if (const auto* peer = std::get_if<std::shared_ptr<platform::Peer>>(&event)) {
        welcome(*peer);
      } else {
        events.push_back(std::string("listener ") + name(std::get<const platform::IpcError*>(event)->kind));
      }
    });
    listener_->resume();
  }

  /// Serves the loop until `condition` holds; false when it never does.
  template <typename Condition>
  bool until(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + tests::kPatience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      sd_event_run(loopOf(*queue_).event(), 1000);  // µs
    }
    return true;
  }
  bool untilEvent(const std::string& event) {
    return until([&] { return count(event) > 0; });
  }
  /// Lets everything that was sent before arrive: serves the loop until nothing is left to do.
  void settle() {
    EXPECT_TRUE(until([&] { return sd_event_run(loopOf(*queue_).event(), 0) == 0; }));
  }
  size_t count(const std::string& event) const {
    return static_cast<size_t>(std::count(events.begin(), events.end(), event));
  }

  std::string socketPath() const { return root / "run/quorveld/com.corvix.quorveld"; }
  platform::MainQueue& queue() { return *queue_; }

  ScratchRoot root;
  RecordingLog log;
  std::vector<std::string> events;
  std::vector<std::unique_ptr<platform::SharedMapping>> mappings;
  std::vector<std::weak_ptr<platform::Peer>> peers;

 private:
  void welcome(const std::shared_ptr<platform::Peer>& peer) {
    EXPECT_EQ(peer->pid(), getpid());
    events.emplace_back("peer");
    peers.push_back(peer);
    peer->setHandler([this, peer](const platform::IpcEvent& event) { note(event); });
    peer->resume();
  }
  void note(const platform::IpcEvent& event) {
    if (const auto* error = std::get_if<const platform::IpcError*>(&event)) {
      events.emplace_back(name((*error)->kind));
    } else if (const auto* odd = std::get_if<const platform::IpcOddEvent*>(&event)) {
      events.push_back("odd " + (*odd)->description);
    } else {
      const platform::IpcMessage& message = *std::get<const platform::IpcMessage*>(event);
      const char* text = message.string("name");
      events.push_back("command " + std::to_string(message.int64("command")) + (text ? " " : "") +
                       (text ? text : ""));
      if (auto* const memory = message.sharedMemory("shmem")) mappings.push_back(memory->map());
    }
  }

  LinuxQueues queues_;
  LinuxIpc ipc_{log};
  std::unique_ptr<platform::MainQueue> queue_;
  std::unique_ptr<platform::Listener> listener_;
};

UniqueFd memory(size_t bytes, unsigned flags = MFD_ALLOW_SEALING) {
  UniqueFd fd(memfd_create("region", MFD_CLOEXEC | flags));
  EXPECT_EQ(ftruncate(fd.get(), static_cast<off_t>(bytes)), 0);
  return fd;
}

std::string startWatching() {
  Wire entries;
  entries.entry("command", "x").number(1, 8).entry("shmem", "h").number(0, 4);
  return dictionary(entries, {.descriptors = 1});
}

size_t openDescriptors() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    count += !entry.path().empty();
  return count;
}

TEST(Ipc, StockLibraryClientIsHeardAndItsMemoryOutlivesItsTruncation) {
  Daemon daemon;
  sd_bus* bus = nullptr;
  ASSERT_GE(sd_bus_new(&bus), 0);
  sd_bus_set_address(bus, ("unix:path=" + daemon.socketPath()).c_str());
  sd_bus_set_bus_client(bus, true);  // says Hello, and waits for the answer
  sd_bus_negotiate_fds(bus, true);
  ASSERT_GE(sd_bus_start(bus), 0);
  ASSERT_TRUE(daemon.until([&] {
    while (sd_bus_process(bus, nullptr) > 0) {
    }
    return sd_bus_is_ready(bus) > 0;
  }));

  const UniqueFd region = memory(7208);
  sd_bus_message* message = nullptr;
  sd_bus_message_new_signal(bus, &message, "/com/corvix/quorveld", "com.corvix.quorveld", "Message");
  ASSERT_GE(sd_bus_message_append(message, "a{sv}", 4, "command", "x", INT64_C(1), "skipped", "a(sv)", 1, "a",
                                  "y", 7, "name", "s", "scroll", "shmem", "h", region.get()),
            0);
  ASSERT_GE(sd_bus_send(bus, message, nullptr), 0);
  sd_bus_message_unref(message);
  sd_bus_flush(bus);
  ASSERT_TRUE(daemon.untilEvent("command 1 scroll"));

  ASSERT_TRUE(daemon.mappings.at(0));
  EXPECT_EQ(daemon.mappings[0]->lengthBytes(), 7208u);
  EXPECT_NE(ftruncate(region.get(), 0), 0) << "the client can still take the pages away";
  ASSERT_EQ(pwrite(region.get(), "x", 1, 7207), 1);
  EXPECT_EQ(static_cast<const char*>(daemon.mappings[0]->address())[7207], 'x');

  EXPECT_FALSE(daemon.peers.at(0).expired());
  sd_bus_close(bus);
  sd_bus_unref(bus);
  ASSERT_TRUE(daemon.untilEvent("invalid"));
  daemon.settle();
  EXPECT_EQ(daemon.count("invalid"), 1u);
  EXPECT_TRUE(daemon.peers[0].expired()) << "a lost peer is kept";
}

TEST(Ipc, MemoryThatCouldFaultIsRefusedWithAReason) {
  Daemon daemon;
  RawClient client(daemon.socketPath());
  client.send(kHandshake);
  const std::vector<std::pair<UniqueFd, std::string>> refused = [] {
    std::vector<std::pair<UniqueFd, std::string>> list;
    list.emplace_back(memory(4096, 0), "can't be sealed");
    list.emplace_back(UniqueFd(open("/proc/self/exe", O_RDONLY | O_CLOEXEC)), "no memfd");
    list.emplace_back(memory(0), "empty");
    list.emplace_back(memory(kMaxSharedMemoryBytes + 1), "larger");
    UniqueFd sealed = memory(4096);
    fcntl(sealed.get(), F_ADD_SEALS, F_SEAL_WRITE);
    list.emplace_back(std::move(sealed), "mmap failed");
    return list;
  }();
  for (size_t i = 0; i < refused.size(); ++i) {
    ASSERT_TRUE(client.send(startWatching(), {refused[i].first.get()}));
    ASSERT_TRUE(daemon.until([&] { return daemon.mappings.size() == i + 1; }));
    EXPECT_FALSE(daemon.mappings[i]);
    EXPECT_NE(daemon.log.lines.back().find(refused[i].second), std::string::npos) << daemon.log.lines.back();
  }
  // The limit itself is fine, and so is memory that its owner has sealed already, the seals included.
  UniqueFd sealed = memory(kMaxSharedMemoryBytes);
  fcntl(sealed.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
  ASSERT_TRUE(client.send(startWatching(), {sealed.get()}));
  ASSERT_TRUE(daemon.until([&] { return daemon.mappings.size() == refused.size() + 1; }));
  EXPECT_TRUE(daemon.mappings.back());
}

TEST(Ipc, MessagesArriveInBothByteOrdersInAnyPiecesAndOddOnesAreDescribed) {
  Daemon daemon;
  RawClient client(daemon.socketPath());
  std::string stream(kHandshake);
  for (const char order : {'l', 'B'}) {
    Wire entries(order);
    entries.entry("name", "s").string(order == 'l' ? "little" : "big");
    entries.entry("other", "(yv)").align(8).byte(1).signature("s").string("x");
    entries.entry("command", "x").number(static_cast<uint64_t>(-5), 8);
    entries.entry("command", "x").number(9, 8);  // the first one counts
    stream += dictionary(entries, {.order = order});
  }
  stream += envelope(
      {.type = 1, .interface = "com.example", .member = std::string(1000, 'M'), .signature = ""}, "");
  Wire wrong;
  wrong.entry("command", "t").number(3, 8);
  stream += dictionary(wrong);
  for (const char byte : stream)
    ASSERT_TRUE(daemon.until([&] { return client.send({&byte, 1}); })) << "the pieces fill the socket";
  ASSERT_TRUE(daemon.untilEvent("command 0"));
  const std::vector<std::string> expected = {
      "peer", "command -5 little", "command -5 big",
      "odd method call com.example." + std::string(kMaxQuotedBytes, 'M') + "()", "command 0"};
  EXPECT_EQ(daemon.events, expected);
  EXPECT_NE(client.received().find("AGREE_UNIX_FD\r\n"), std::string::npos);
}

TEST(Ipc, ClientThatBreaksTheRulesIsClosedAndCostsNothing) {
  Daemon daemon;
  RawClient bystander(daemon.socketPath());
  bystander.send(kHandshake);
  ASSERT_TRUE(daemon.untilEvent("peer"));
  daemon.settle();
  const UniqueFd region = memory(4096);
  const int fd = region.get();
  const size_t before = openDescriptors();
  const auto build = [](size_t nameBytes) {
    Wire entries;
    entries.entry("command", "x").number(4, 8).entry("n", "s").string(std::string(nameBytes, 'x'));
    return dictionary(entries);
  };
  const auto sized = [&](size_t total) { return build(total - build(0).size()); };
  std::string badOrder = command(1);
  badOrder[0] = 'x';
  std::string badLength = command(1);
  badLength[badLength.size() - 32] ^= 4;
  struct Case {
    const char* what;
    std::string bytes;
    std::vector<int> descriptors;
    bool isPeer = true;  // of which it is said that it has gone
  };
  const std::vector<Case> cases = {
      {"no D-Bus", "GET / HTTP/1.1\r\n", {}, false},
      {"endless handshake", std::string(1, '\0') + std::string(kMaxHandshakeBytes + 1, 'A'), {}, false},
      {"message before the handshake ends", std::string("\0BEGIN\r\n", 8), {}, false},
      {"one byte too long", std::string(kHandshake) + sized(kMaxMessageBytes + 1), {}},
      {"bad byte order", std::string(kHandshake) + badOrder, {}},
      {"bad dictionary length", std::string(kHandshake) + badLength, {}},
      {"missing descriptor", std::string(kHandshake) + startWatching(), {}},
      {"unclaimed descriptor", std::string(kHandshake) + command(1), {fd}},
      {"hoarded descriptors", std::string(kHandshake) + "l", std::vector<int>(kMaxDescriptors + 1, fd)},
  };
  for (const Case& each : cases) {
    daemon.events.clear();
    daemon.log.lines.clear();
    daemon.log.senders.clear();
    RawClient client(daemon.socketPath());
    client.send(each.bytes, each.descriptors);
    EXPECT_TRUE(daemon.until([&] { return !daemon.log.lines.empty(); })) << each.what;
    EXPECT_EQ(daemon.log.lines.size(), 1u) << each.what;
    EXPECT_EQ(daemon.log.senders, std::vector{getuid()}) << "others pay for it";
    EXPECT_EQ(daemon.log.sender, kSomebodyElse);
    EXPECT_EQ(daemon.count("invalid"), each.isPeer) << each.what;
    client.disconnect();
    EXPECT_EQ(openDescriptors(), before) << each.what;
  }
  ASSERT_EQ(sized(kMaxMessageBytes).size(), kMaxMessageBytes);
  ASSERT_TRUE(bystander.send(sized(kMaxMessageBytes)));
  EXPECT_TRUE(daemon.untilEvent("command 4")) << "the longest message is refused";
}

TEST(Ipc, DescriptorsInPiecesOfAMessageAreBounded) {
  Daemon daemon;
  RawClient patient(daemon.socketPath());
  RawClient client(daemon.socketPath());
  patient.send(kHandshake);
  client.send(kHandshake);
  const UniqueFd region = memory(4096);
  // Each piece lies behind descriptors that hide it from whoever doesn't take them.
  const std::string message = startWatching();
  for (size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(patient.send(message.substr(i, 1), i == 2 ? std::vector{region.get()} : std::vector<int>()));
    daemon.settle();
  }
  ASSERT_TRUE(patient.send(message.substr(4)));
  EXPECT_TRUE(daemon.untilEvent("command 1"));
  EXPECT_TRUE(daemon.mappings.at(0));

  for (size_t i = 0; i <= kMaxDescriptors; ++i) {
    EXPECT_EQ(daemon.count("invalid"), 0u);
    ASSERT_TRUE(client.send(message.substr(i, 1), {region.get()}));
    daemon.settle();
  }
  ASSERT_TRUE(daemon.untilEvent("invalid"));
}

TEST(Ipc, FloodDoesNotHoldUpTimersOrOtherClients) {
  Daemon daemon;
  RawClient flooder(daemon.socketPath());
  RawClient other(daemon.socketPath());
  flooder.send(kHandshake);
  other.send(kHandshake);
  std::atomic<bool> stop = false;
  std::thread flood([&] {
    std::string burst;
    while (burst.size() < 60'000) burst += command(6);
    while (!stop) {
      if (::send(flooder.fd(), burst.data(), burst.size(), MSG_NOSIGNAL) !=
          static_cast<ssize_t>(burst.size()))
        break;
    }
  });
  ASSERT_TRUE(daemon.until([&] { return daemon.count("command 6") > 1000; }));
  auto worst = 0ms;
  tests::OwnTime sinceLast;
  int ticks = 0;
  const auto timer = daemon.queue().repeat({10ms, 10ms, 0ms}, [&] {
    worst = std::max(worst, sinceLast.elapsed());
    sinceLast = {};
    ++ticks;
    daemon.events.clear();
  });
  ASSERT_TRUE(daemon.until([&] { return ticks == 20; }));
  other.send(command(7));
  EXPECT_TRUE(daemon.untilEvent("command 7"));
  EXPECT_LT(worst, 500ms);
  stop = true;
  shutdown(flooder.fd(), SHUT_RDWR);
  flood.join();
}

TEST(Ipc, PlacesFollowFromTheDescriptorLimitAndComeBack) {
  constexpr rlim_t kFew = 64;
  constexpr size_t kAll = (kFew - kFew / 2) / kDescriptorsOfPeer;
  // Whoever isn't root has to leave some to others.
  ClientShares shares(kAll, kAll / 8, 1);
  while (shares.admits(getuid(), getpid())) shares.add(getuid(), getpid());
  const size_t places = shares.all();
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit few{kFew, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  Daemon daemon;
  setrlimit(RLIMIT_NOFILE, &before);
  std::vector<std::unique_ptr<RawClient>> clients;
  const auto connect = [&] { clients.push_back(std::make_unique<RawClient>(daemon.socketPath())); };
  for (size_t i = 0; i < places + 4; ++i) connect();
  for (size_t i = places; i < clients.size(); ++i) {
    char byte = 0;
    EXPECT_TRUE(daemon.until([&] { return recv(clients[i]->fd(), &byte, 1, MSG_DONTWAIT) == 0; }))
        << "who isn't let in is not told";
  }
  EXPECT_EQ(daemon.count("peer"), places);
  ASSERT_EQ(daemon.log.lines.size(), 1u) << "one line for many refusals";
  EXPECT_EQ(daemon.log.lines[0], "Refused 1 connections, the last one of user " + std::to_string(getuid()) +
                                     " with " + std::to_string(places) + " of " + std::to_string(places));
  ASSERT_TRUE(clients.front()->send(kHandshake));
  clients.erase(clients.begin());
  ASSERT_TRUE(daemon.untilEvent("invalid"));
  connect();
  EXPECT_TRUE(daemon.until([&] { return daemon.count("peer") == places + 1; })) << "no place is given back";
}

TEST(Ipc, ExhaustedDescriptorsInterruptTheListenerWithoutSpinning) {
  Daemon daemon;
  RawClient client(daemon.socketPath());  // waits in the backlog
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{3, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const bool interrupted = daemon.untilEvent("listener interrupted");
  const auto start = std::chrono::steady_clock::now();
  daemon.settle();
  const auto pauses = static_cast<size_t>((std::chrono::steady_clock::now() - start) / kAcceptPause);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_TRUE(interrupted);
  EXPECT_LE(daemon.count("listener interrupted"), 1 + pauses);
  EXPECT_TRUE(daemon.untilEvent("peer")) << "accepting is not taken up again";
}

TEST(Ipc, TerminationReachesEveryPeerBeforeTheQueueEnds) {
  Daemon daemon;
  RawClient one(daemon.socketPath());
  RawClient two(daemon.socketPath());
  ASSERT_TRUE(daemon.until([&] { return daemon.count("peer") == 2; }));
  raise(SIGTERM);
  EXPECT_EQ(daemon.queue().run(), 0);
  EXPECT_EQ(daemon.count("termination"), 2u);
  EXPECT_EQ(daemon.count("invalid"), 0u);
  char byte = 0;
  EXPECT_EQ(recv(one.fd(), &byte, 1, 0), 0) << "the connection is still open";
}

TEST(Ipc, SocketThatIsLeftBehindIsReplaced) {
  Daemon daemon;
  {
    LinuxIpc ipc(daemon.log);
    const auto second = ipc.listen("com.corvix.quorveld", daemon.queue());
    bool accepted = false;
    second->setHandler([&](const platform::ListenerEvent&) { accepted = true; });
    second->resume();
    RawClient client(daemon.socketPath());
    EXPECT_TRUE(daemon.until([&] { return accepted; }));
  }
  EXPECT_FALSE(RawClient(daemon.socketPath()).connected()) << "the socket stays behind";
}

TEST(Ipc, ListenerThatCannotBeHadSaysSoOnceAndTheDaemonGoesOn) {
  ScratchRoot root;
  root.write("run", "a file where the directory should be");
  RecordingLog log;
  LinuxQueues queues;
  const auto queue = queues.createMain("com.corvix.test", platform::QoSClass::userInitiated);
  LinuxIpc ipc(log);
  const auto listener = ipc.listen("com.corvix.quorveld", *queue);
  std::vector<IpcErrorKind> errors;
  listener->setHandler([&](const platform::ListenerEvent& event) {
    errors.push_back(std::get<const platform::IpcError*>(event)->kind);
    EXPECT_EQ(ipc.pidOf(*std::get<const platform::IpcError*>(event)), 0);
  });
  listener->resume();
  queue->after(50ms, [&] { queue->quit(0); });
  EXPECT_EQ(queue->run(), 0);
  EXPECT_EQ(errors, std::vector{IpcErrorKind::connectionInvalid});
}

TEST(DBusMessage, DamagedBytesNeitherCrashNorHang) {
  Wire entries;
  entries.entry("command", "x").number(1, 8).entry("a", "a{sv}").number(0, 4).align(8);
  entries.entry("v", "v").signature("(sv)").align(8).string("deep").signature("as").number(0, 4);
  entries.entry("name", "s").string("scroll").entry("flag", "b").number(1, 4);
  const std::string sound = dictionary(entries);
  std::mt19937 random(20260115);
  size_t decoded = 0;
  const auto read = [&](const std::string& text) {
    // On the heap and to the byte, so that a sanitizer sees a read beyond.
    const std::unique_ptr<char[]> exact(new char[text.size()]);
    std::copy(text.begin(), text.end(), exact.get());
    const std::string_view bytes(exact.get(), text.size());
    if (frameOf(bytes).status != FrameStatus::whole) return;
    const auto parsed = parseEnvelope(bytes.substr(0, frameOf(bytes).sizeBytes));
    platform::IpcMessage message;
    if (parsed && decodeDictionary(*parsed, {}, message)) decoded += message.int64("command") == 1;
  };
  read(sound);
  ASSERT_EQ(decoded, 1u);
  for (size_t length = 0; length < sound.size(); ++length) read(sound.substr(0, length));
  ASSERT_EQ(decoded, 1u) << "a cut message counted as whole";
  for (int i = 0; i < 200'000; ++i) {
    std::string damaged = sound;
    for (unsigned n = random() % 3 + 1; n > 0; --n)
      damaged[random() % damaged.size()] = static_cast<char>(random());
    read(damaged);
  }
  Wire nested;
  nested.entry("v", "v");
  for (int i = 0; i < 4000; ++i) nested.signature("v");
  read(dictionary(nested));
}

}  // namespace
}  // namespace quorveld::linux_platform
