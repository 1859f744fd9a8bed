#include "tests/sim/world.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "base/settings.h"

namespace quorveld::sim {

using namespace std::chrono_literals;

App::App(World& world, int32_t pid, size_t regionBytes)
    : world_(&world),
      pid_(pid),
      memory_(std::make_shared<SimMemory>(regionBytes, world.faults)),
      client_(world.ipc.connect(pid)) {
  if (regionBytes >= sizeof(QVSharedHangRegion)) {
    region().protocolVersion = QV_HANG_PROTOCOL_VERSION;
    region().slotCount = QV_HANG_SLOT_COUNT;
    for (hangEvent& slot : region().slots) slot.timeoutExempt = 1;
  }
  world.settle();
}

void App::send(SimMessage message) const {
  client_.send(std::move(message));
  world_->settle();
}

void App::registerRegion() const {
  const std::string& path = world_->kernel.executablePaths[pid_];
  const std::string name = path.substr(path.rfind('/') + 1);
  send({{"command", 1}, {"shmem", memory_.get()}, {"bundle-id", "com.example." + name}, {"name", name}});
}

void App::reportHang(std::chrono::nanoseconds duration, Save save, const std::string& name) const {
  if (duration < 1s) world_->advance(1s - duration);
  const auto start = static_cast<int64_t>(world_->now());
  world_->advance(duration);
  send({{"command", 3},
        {"startTime", start},
        {"endTime", static_cast<int64_t>(world_->now())},
        {"threadID", 77},
        {"name", name},
        {"saveReport", save == Save::yes}});
}

void App::begin(int index, const std::string& name, std::chrono::nanoseconds age, Save save) const {
  hangEvent& event = slot(index);
  event.startTime = world_->now() - SimClock::ticks(age);
  event.wantsKelvane = save == Save::yes;
  event.threadID = 1000 + static_cast<uint64_t>(index);
  std::memset(event.hangName, 0, sizeof event.hangName);
  std::memcpy(event.hangName, name.data(), std::min(name.size(), sizeof event.hangName));
  event.timeoutExempt = 0;
}

void App::disconnect() const {
  client_.disconnect();
  world_->settle();
}

void App::reconnect() {
  client_ = world_->ipc.connect(pid_);
  world_->settle();
}

World::World(Daemon daemon) {
  if (daemon == Daemon::later) return;
  preferences.userSets("QuorvelEnabled", true);
  preferences.userSets("QuorvelEnableKelvane", true);
  start();
}

World::~World() {
  daemon_.reset();
  // Hang tracking's state is the process's: what it holds of this platform has to go before the platform
  // does.
  const auto queue = queues.createMain("end", platform::QoSClass::userInitiated);
  QVProcessInfo::initialize(*queue);
}

void World::start() {
  daemon_ = std::make_unique<quorveld::Daemon>();
  daemon_->start();
  settle();
}

void World::stop() {
  daemon_.reset();
  std::destroy_at(&settings());
  std::construct_at(&settings());
}

App World::connectApp(const std::string& name, size_t regionBytes) {
  const int32_t pid = nextPid_++;
  kernel.executablePaths[pid] = "/apps/" + name;
  return App(*this, pid, regionBytes);
}

App World::startApp(const std::string& name) {
  App app = connectApp(name);
  app.registerRegion();
  return app;
}

void World::prefer(const std::string& key, platform::PreferenceValue::Variant value, const char* domain) {
  preferences.userSets(key, std::move(value), domain);
  announcePreferences();
}

void World::announcePreferences() {
  notifications.post("com.corvix.telvo.tasking_changed");
  settle();
}

testing::AssertionResult World::logged(Level level, const std::string& text) const {
  if (logs.has(level, text)) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "not logged: " << text << "\nbut:\n" << logs.dump();
}

std::vector<std::string> World::lines(Level level) const {
  std::vector<std::string> texts;
  for (const LogLine& line : logs.lines) {
    if (line.level == level) texts.push_back(line.text);
  }
  return texts;
}

}  // namespace quorveld::sim
