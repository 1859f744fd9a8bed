#pragma once

#include <cstdint>
#include <set>
#include <vector>

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
  void handlePeerEvent(platform::Peer& peer, const platform::IpcEvent& event);

  /// Disconnects every peer whose process was watched and is no longer, though it has not asked for that.
  /// Nobody else tells it so; the client library connects and registers again.
  void disconnectForgottenPeers();

 private:
  void welcome(platform::Peer& peer);
  void dispatch(platform::Peer& peer, const platform::IpcMessage& message);

  void startWatching(platform::Peer& peer, const platform::IpcMessage& message);
  void stopWatching(platform::Peer& peer);
  void hangDetected(int32_t peerPid, const platform::IpcMessage& message);
  void activationBegin(const platform::Peer& peer, const platform::IpcMessage& message);
  void activationEnd(const platform::Peer& peer, const platform::IpcMessage& message);
  /// Whether the peer may announce the message's process; if not, that is said once.
  bool isHeard(const platform::Peer& peer, const platform::IpcMessage& message);
  void fenceBegin(const platform::IpcMessage& message);
  void fenceEnd(const platform::IpcMessage& message);
  static void fenceBlown(const platform::IpcMessage& message);

  FenceTable fences_;
  std::set<const platform::Peer*> unheard_;  ///< connected, and told the log of
  std::vector<platform::Peer*> registered_;  ///< those that are to be watched, connected all of them
};

}  // namespace quorveld
