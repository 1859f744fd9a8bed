#pragma once

#include <cstdint>
#include <memory>

#include "core/fence_table.h"
#include "platform/ipc.h"

namespace quorveld {

/// Takes what clients and the listener deliver and turns the eight commands into calls.
///
/// Nothing is ever answered. A malformed message is logged and dropped, and its sender stays connected. Work
/// queue only.
class MessageDispatcher {
 public:
  void handleListenerEvent(const platform::ListenerEvent& event);
  void handlePeerEvent(int32_t peerPid, const platform::IpcEvent& event);

 private:
  void welcome(platform::Peer& peer);
  void dispatch(int32_t peerPid, const platform::IpcMessage& message);

  static void startWatching(int32_t peerPid, const platform::IpcMessage& message);
  void hangDetected(int32_t peerPid, const platform::IpcMessage& message);
  static void activationBegin(const platform::IpcMessage& message);
  static void activationEnd(const platform::IpcMessage& message);
  void fenceBegin(const platform::IpcMessage& message);
  void fenceEnd(const platform::IpcMessage& message);
  static void fenceBlown(const platform::IpcMessage& message);

  FenceTable fences_;
};

}  // namespace quorveld
