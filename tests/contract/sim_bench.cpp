#include "tests/contract/bench.h"
#include "tests/sim/sim_platform.h"

namespace quorveld::contract {

namespace {

class SimBenchClient final : public Client {
 public:
  SimBenchClient(sim::SimPlatform& world, int32_t pid) : world_(world), client_(world.ipc.connect(pid)) {}

  void send(const sim::SimMessage& message) override { client_.send(message); }
  void sendMemory(size_t lengthBytes, char firstByte) override {
    memory_ = std::make_unique<sim::SimMemory>(lengthBytes, world_.faults);
    memory_->bytes()[0] = static_cast<std::byte>(firstByte);
    client_.send({{"shmem", memory_.get()}});
  }
  char firstByteOfMemory() override { return static_cast<char>(memory_->bytes()[0]); }
  void disconnect() override { client_.disconnect(); }

 private:
  sim::SimPlatform& world_;
  sim::SimClient client_;
  std::unique_ptr<sim::SimMemory> memory_;
};

class SimBench final : public Bench {
 public:
  const platform::Platform& platform() override { return platform::current(); }
  int32_t clientPid() override { return 4711; }
  std::unique_ptr<Client> connect() override { return std::make_unique<SimBenchClient>(world_, clientPid()); }
  void postNotification(const std::string& name, uint64_t state) override {
    world_.notifications.post(name, state);
  }
  void requestStatus() override { world_.queues.requestStatus(); }
  void requestReload() override { world_.queues.requestReload(); }
  std::string directory() override { return "/var/root/Library/Caches"; }
  std::optional<std::string> content(const std::string& path) override { return world_.files.content(path); }
  void putLink(const std::string& path, const std::string&) override { world_.files.putLink(path); }
  void userSets(const platform::PreferenceDictionary& values, const std::string& domain) override {
    for (const auto& [key, value] : values) world_.preferences.userSets(key, value.variant(), domain.c_str());
  }
  void putManaged(const platform::PreferenceDictionary& values, const std::string& path) override {
    world_.preferences.managed.insert_or_assign(path, values);
  }
  void breakManaged(const std::string&) override { world_.faults.failOnce(sim::Op::readManaged); }

 private:
  sim::SimPlatform world_;
};

}  // namespace

std::unique_ptr<Bench> makeSimBench() {
  return std::make_unique<SimBench>();
}

}  // namespace quorveld::contract
