// What a peer sends, from the bytes on its socket to what the dispatcher makes of them. Every input is read
// twice: as the stream of a connection, and as the body of one message, so that mutations need not keep a
// header intact.
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "abi/hang_region.h"
#include "activation/app_activation_tracker.h"
#include "core/message_dispatcher.h"
#include "hangs/qv_process_info.h"
#include "platform/linux/wire/dbus_message.h"
#include "tests/sim/sim_platform.h"

namespace {

using namespace quorveld;
using namespace quorveld::linux_platform;

constexpr int32_t kPid = 501;

class FuzzPeer final : public platform::Peer {
 public:
  int32_t pid() const override { return kPid; }
  uint32_t uid() const override { return 1000; }
  bool mayAnnounce(int32_t launchedPid) const override { return launchedPid != 1; }
  void setHandler(std::function<void(const platform::IpcEvent&)>) override {}
  void resume() override {}
  void disconnect() override {}
};

/// One daemon for all inputs: what it keeps of one message must do no harm in the next.
class Target {
 public:
  Target() {
    QVProcessInfo::initialize(*queue_);
    AppActivationTracker::initialize(*queue_);
    AppActivationTracker::sharedInstance().setShouldCaptureSystemState(true);
    AppActivationTracker::sharedInstance().setShouldReportData(true);
    sim_.kernel.executablePaths[kPid] = "/apps/viewer";
    QVSharedHangRegion header{};
    header.protocolVersion = QV_HANG_PROTOCOL_VERSION;
    std::memcpy(region_.bytes(), &header, sizeof header);
  }

  void stream(std::string_view bytes) {
    for (;;) {
      const Frame frame = frameOf(bytes);
      if (frame.status != FrameStatus::whole) return;
      const std::optional<DBusEnvelope> envelope = parseEnvelope(bytes.substr(0, frame.sizeBytes));
      if (!envelope) return;
      (void)describe(*envelope);
      dispatch(*envelope);
      bytes.remove_prefix(frame.sizeBytes);
    }
  }

  void body(std::string_view bytes) {
    DBusEnvelope envelope{};
    envelope.body = bytes;
    dispatch(envelope);
  }

 private:
  void dispatch(const DBusEnvelope& envelope) {
    platform::SharedMemory* const memories[] = {&region_, &tooShort_};
    platform::IpcMessage message;
    if (!decodeDictionary(envelope, memories, message)) return;
    queue_->async([&] { dispatcher_.handlePeerEvent(peer_, platform::IpcEvent(&message)); });
    sim_.advance(std::chrono::seconds(2));
    sim_.logs.clear();
  }

  sim::SimPlatform sim_;
  std::unique_ptr<platform::MainQueue> queue_ =
      sim_.queues.createMain("com.corvix.quorvel", platform::QoSClass::userInitiated);
  sim::SimMemory region_{sizeof(QVSharedHangRegion), sim_.faults};
  sim::SimMemory tooShort_{8, sim_.faults};
  FuzzPeer peer_;
  MessageDispatcher dispatcher_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Target* const target = new Target;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  target->stream(bytes);
  target->body(bytes);
  return 0;
}
