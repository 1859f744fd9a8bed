#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/ipc.h"
#include "tests/sim/fault_plan.h"

namespace quorveld::sim {

/// A shared-memory object of a client. It is as long as it says to the byte, so that a sanitizer sees a read
/// beyond.
class SimMemory final : public platform::SharedMemory {
 public:
  SimMemory(size_t lengthBytes, FaultPlan& faults)
      : bytes_(new std::byte[lengthBytes]()), lengthBytes_(lengthBytes), faults_(faults) {}

  std::unique_ptr<platform::SharedMapping> map() override;

  std::byte* bytes() const { return bytes_.get(); }
  /// Mappings that exist now.
  int mappings() const { return *mappings_; }

  bool mapsToNull = false;  ///< the mapping's address is null

 private:
  std::shared_ptr<std::byte[]> bytes_;
  size_t lengthBytes_;
  FaultPlan& faults_;
  std::shared_ptr<int> mappings_ = std::make_shared<int>(0);
};

/// A message as a scenario writes it: {{"command", 3}, {"name", "scroll"}}.
using SimMessage =
    std::vector<std::pair<std::string, std::variant<int64_t, uint64_t, bool, std::string, SimMemory*>>>;

class SimListener;
class SimPeer;

/// The client's end of one connection. A copy is the same connection.
class SimClient {
 public:
  explicit SimClient(std::shared_ptr<SimPeer> peer) : peer_(std::move(peer)) {}

  void send(SimMessage message) const;
  void sendOdd(std::string description) const;
  void fail(platform::IpcErrorKind kind, std::string description) const;
  void disconnect() const { fail(platform::IpcErrorKind::connectionInvalid, "Connection invalid"); }

 private:
  std::shared_ptr<SimPeer> peer_;
};

class SimIpc final : public platform::Ipc {
 public:
  std::unique_ptr<platform::Listener> listen(std::string_view serviceName,
                                             platform::MainQueue& queue) override;
  int32_t pidOf(const platform::IpcError&) override { return errorPid; }

  /// A new connection to the listener; nothing is delivered while there is none.
  SimClient connect(int32_t pid, uint32_t uid = 0);
  void failListener(platform::IpcErrorKind kind, std::string description);
  void oddListenerEvent(std::string description);
  const std::string& serviceName() const { return serviceName_; }

  std::set<int32_t> processesOfRoot;  ///< whose launches no other user may announce
  int32_t errorPid = 0;               ///< what the peer-pid query answers when handed an error

 private:
  friend class SimListener;

  std::string serviceName_;
  SimListener* listener_ = nullptr;
};

}  // namespace quorveld::sim
