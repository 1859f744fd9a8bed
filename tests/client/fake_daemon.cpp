#include "tests/client/fake_daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "abi/messages.h"
#include "client/include/quorvel.h"
#include "tests/patience.h"

using namespace std::chrono_literals;

MappedRegion::MappedRegion(int fd)
    : region_(static_cast<QVSharedHangRegion*>(
          mmap(nullptr, sizeof(QVSharedHangRegion), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0))) {
  if (region_ == MAP_FAILED) abort();
}

MappedRegion::~MappedRegion() {
  munmap(region_, sizeof(QVSharedHangRegion));
}

std::vector<const hangEvent*> MappedRegion::inFlight() const {
  std::vector<const hangEvent*> found;
  for (const hangEvent& slot : region_->slots) {
    if (__atomic_load_n(&slot.timeoutExempt, __ATOMIC_SEQ_CST) == 0) found.push_back(&slot);
  }
  return found;
}

FakeDaemon::FakeDaemon() {
  std::string name = "/tmp/qv client,XXXXXX";  // the blank and the comma have to survive a D-Bus address
  if (!mkdtemp(name.data())) abort();
  root_ = name;
  std::filesystem::create_directories(root_ + "/run/quorveld");
  setenv("QUORVELD_ROOT", root_.c_str(), 1);
}

FakeDaemon::~FakeDaemon() {
  qv_disconnect();
  stop();
  for (const int memory : memories_) close(memory);
  std::filesystem::remove_all(root_);
}

void FakeDaemon::start() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s%s", root_.c_str(), QV_SOCKET_PATH);
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) abort();
  if (listen(listener_, 16) < 0) abort();
  running_ = true;
  thread_ = std::thread([this] { serve(); });
}

void FakeDaemon::stop() {
  if (!running_.exchange(false)) return;
  thread_.join();
  for (sd_bus* bus : buses_) sd_bus_close_unref(bus);
  buses_.clear();
  connections_ = 0;
  close(listener_);
  unlink((root_ + QV_SOCKET_PATH).c_str());
}

void FakeDaemon::serve() {
  while (running_) {
    if (paused_) {
      std::this_thread::sleep_for(1ms);
      continue;
    }
    accept();
    bool idle = true;
    for (size_t i = 0; i < buses_.size(); ++i) {
      sd_bus_message* message = nullptr;
      const int result = sd_bus_process(buses_[i], &message);
      if (message) take(message);
      sd_bus_message_unref(message);
      if (result > 0) idle = false;
      if (result >= 0) continue;
      sd_bus_close_unref(buses_[i]);
      buses_.erase(buses_.begin() + static_cast<std::ptrdiff_t>(i--));
      connections_ = buses_.size();
    }
    if (idle) std::this_thread::sleep_for(1ms);
  }
}

void FakeDaemon::accept() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return;
  sd_bus* bus = nullptr;
  const sd_id128_t id{{1}};
  if (sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, fd, fd) < 0 || sd_bus_set_server(bus, 1, id) < 0 ||
      sd_bus_negotiate_fds(bus, 1) < 0 || sd_bus_start(bus) < 0) {
    abort();
  }
  buses_.push_back(bus);
  connections_ = buses_.size();
}

void FakeDaemon::take(sd_bus_message* message) {
  if (!sd_bus_message_is_method_call(message, QV_MESSAGE_INTERFACE, QV_MESSAGE_MEMBER)) return;
  Received received;
  if (sd_bus_message_get_expect_reply(message) != 0) received.values["expects reply"] = "yes";
  if (sd_bus_message_enter_container(message, 'a', "{sv}") <= 0) return;
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char* key = nullptr;
    const char* type = nullptr;
    sd_bus_message_read_basic(message, 's', static_cast<void*>(&key));
    sd_bus_message_peek_type(message, nullptr, &type);
    sd_bus_message_enter_container(message, 'v', type);
    union {
      int64_t number;
      uint64_t unsignedNumber;
      const char* text;
      int small;
    } value{};
    sd_bus_message_read_basic(message, *type, &value);
    std::string text;
    if (*type == 'x') text = std::to_string(value.number);
    if (*type == 't') text = std::to_string(value.unsignedNumber);
    if (*type == 's') text = value.text;
    if (*type == 'b') text = std::to_string(value.small);
    if (*type == 'h') {
      memories_.push_back(fcntl(value.small, F_DUPFD_CLOEXEC, 0));
      memory_ = memories_.back();
    }
    received.values[key] = std::string(type) + " " + text;
    sd_bus_message_exit_container(message);
    sd_bus_message_exit_container(message);
  }
  const std::lock_guard lock(mutex_);
  received_.push_back(std::move(received));
  receivedCount_ = received_.size();
  arrived_.notify_all();
}

std::vector<Received> FakeDaemon::await(size_t count) {
  std::unique_lock lock(mutex_);
  arrived_.wait_for(lock, quorveld::tests::kPatience, [&] { return received_.size() >= count; });
  return received_;
}

bool processUntil(const std::function<bool()>& condition) {
  return quorveld::tests::eventually([&] {
    pollfd descriptor{qv_fd(), POLLIN, 0};
    if (!condition() && poll(&descriptor, 1, 10) > 0) qv_process();
    return condition();
  });
}

int watchPatiently(const char* bundleId, const char* name) {
  int result = qv_watch(bundleId, name);
  if (result == -EINPROGRESS) processUntil([&] { return (result = qv_process()) != -EINPROGRESS; });
  return result;
}
