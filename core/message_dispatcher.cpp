#include "core/message_dispatcher.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "abi/messages.h"
#include "activation/app_activation_tracker.h"
#include "base/log.h"
#include "base/settings.h"
#include "base/ticks.h"
#include "hangs/qv_process_info.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

using platform::IpcError;
using platform::IpcErrorKind;
using platform::IpcMessage;

/// A hang that overlaps fences by at least this many ms is the fences' hang.
constexpr uint64_t kFenceHangOverlapMs = 401;
constexpr const char* kFenceHangName = "Fence-hang";

/// Fence hangs are widened by half a second each way, wrapping as unsigned numbers do.
void recordFenceHang(QVProcessInfo& process, uint64_t threadID, uint64_t startTicks, uint64_t endTicks,
                     bool save) {
  process.recordHang(kFenceHangName, threadID, startTicks - kTicksPerHalfSecond,
                     endTicks + kTicksPerHalfSecond, save);
}

}  // namespace

void MessageDispatcher::handleListenerEvent(const platform::ListenerEvent& event) {
  const Log log = quorvelLog();
  if (const auto* peer = std::get_if<std::shared_ptr<platform::Peer>>(&event)) {
    welcome(**peer);
  } else if (const auto* odd = std::get_if<const platform::IpcOddEvent*>(&event)) {
    log.standard("quorveld: unknown event type : %p", static_cast<const void*>(*odd));
  } else {
    const IpcError& error = *std::get<const IpcError*>(event);
    const char* description = error.description.c_str();
    if (error.kind == IpcErrorKind::connectionInvalid) {
      // The listener has no peer: the pid is whatever the transport answers for the error itself.
      const int32_t pid = platform::current().ipc.pidOf(error);
      log.info("ipx_error_connection_invalid %s - stop watching pid %d", description, pid);
      QVProcessInfo::stopWatchingPid(pid);
    } else if (error.kind == IpcErrorKind::connectionInterrupted) {
      log.standard("ipx_error_connection_interrupted: %s", description);
    } else {
      log.standard("quorveld: Connection error: %p : %s", static_cast<const void*>(&error), description);
    }
  }
}

void MessageDispatcher::welcome(platform::Peer& peer) {
  const LogSender sender(peer.uid());
  const int32_t pid = peer.pid();
  quorvelLog().info("IPX: Client started new connection: pid %d", pid);
  peer.setHandler([this, &peer](const platform::IpcEvent& event) { handlePeerEvent(peer, event); });
  peer.resume();
  AppActivationTracker::noteConnectionOfPID(peer.uid(), pid);
}

void MessageDispatcher::handlePeerEvent(platform::Peer& peer, const platform::IpcEvent& event) {
  const LogSender sender(peer.uid());
  const Log log = quorvelLog();
  if (const auto* message = std::get_if<const IpcMessage*>(&event)) {
    dispatch(peer, **message);
  } else if (const auto* odd = std::get_if<const platform::IpcOddEvent*>(&event)) {
    log.standard("We got a non-dictionary event: %s", (*odd)->description.c_str());
  } else {
    const IpcError& error = *std::get<const IpcError*>(event);
    if (error.kind == IpcErrorKind::connectionInvalid) {
      log.info("Client disconnected: %d", peer.pid());
      unheard_.erase(&peer);
      stopWatching(peer);
    } else if (error.kind == IpcErrorKind::terminationImminent) {
      log.info("Termination imminent!");
    } else {
      log.standard("Unexpected error: %s", error.description.c_str());
    }
  }
}

void MessageDispatcher::disconnectForgottenPeers() {
  // A copy: each one that goes is taken from the list.
  for (platform::Peer* peer : std::vector(registered_)) {
    if (!QVProcessInfo::processForPid(peer->pid())) peer->disconnect();
  }
}

void MessageDispatcher::dispatch(platform::Peer& peer, const IpcMessage& message) {
  const int32_t peerPid = peer.pid();
  if (peerPid <= 0) {
    quorvelLog().info("%d is not a valid pid to watch", peerPid);
    return;
  }
  switch (message.int64(QV_KEY_COMMAND)) {
    case QV_COMMAND_START_WATCHING:
      return startWatching(peer, message);
    case QV_COMMAND_STOP_WATCHING:
      return stopWatching(peer);
    case QV_COMMAND_HANG_DETECTED:
      return hangDetected(peerPid, message);
    case QV_COMMAND_ACTIVATION_BEGIN:
      return activationBegin(peer, message);
    case QV_COMMAND_ACTIVATION_END:
      return activationEnd(peer, message);
    case QV_COMMAND_FENCE_BEGIN:
      return fenceBegin(message);
    case QV_COMMAND_FENCE_END:
      return fenceEnd(message);
    case QV_COMMAND_FENCE_BLOWN:
      return fenceBlown(message);
    default:
      quorvelLog().standard("Don't know how to handle %p", static_cast<const void*>(&message));
  }
}

void MessageDispatcher::startWatching(platform::Peer& peer, const IpcMessage& message) {
  const Log log = quorvelLog();
  const int32_t peerPid = peer.pid();
  platform::SharedMemory* sharedMemory = message.sharedMemory(QV_KEY_SHMEM);
  if (!sharedMemory) {
    log.standard("Didn't get shmem from no longer watching %d", peerPid);
    return;
  }
  auto mapping = sharedMemory->map();
  if (!mapping || mapping->lengthBytes() == 0 || !mapping->address()) {
    log.standard("Something wrong w/shmem");
    return;
  }
  const auto process = QVProcessInfo::startWatchingPid(peerPid, std::move(mapping),
                                                       message.string(QV_KEY_BUNDLE_ID), peer.uid());
  if (process) {
    std::erase(registered_, &peer);
    registered_.push_back(&peer);
  }
  // Said of a refused process too, as "(null)": the line before it has the reason.
  log.info("Initialization complete now watching hangs for %s | %s",
           process ? process->description().c_str() : "(null)", message.string(QV_KEY_NAME));
}

void MessageDispatcher::stopWatching(platform::Peer& peer) {
  std::erase(registered_, &peer);
  QVProcessInfo::stopWatchingPid(peer.pid());
}

void MessageDispatcher::hangDetected(int32_t peerPid, const IpcMessage& message) {
  const auto process = QVProcessInfo::processForPid(peerPid);
  if (!process) {
    quorvelLog().standard("Got hang detected message for a pid we're not monitoring: %d", peerPid);
    return;
  }
  const auto startTicks = static_cast<uint64_t>(message.int64(QV_KEY_START_TIME));
  const auto endTicks = static_cast<uint64_t>(message.int64(QV_KEY_END_TIME));
  const auto threadID = static_cast<uint64_t>(message.int64(QV_KEY_THREAD_ID));
  const bool saveReport = message.boolean(QV_KEY_SAVE_REPORT);
  if (fences_.overlapMs(startTicks, endTicks) < kFenceHangOverlapMs) {
    process->recordHang(message.string(QV_KEY_NAME), threadID, startTicks, endTicks, saveReport);
  } else {
    recordFenceHang(*process, threadID, startTicks, endTicks, saveReport);
  }
}

bool MessageDispatcher::isHeard(const platform::Peer& peer, const IpcMessage& message) {
  const auto pid = static_cast<int32_t>(message.int64(QV_KEY_PID));
  if (peer.mayAnnounce(pid)) return true;
  if (unheard_.insert(&peer).second) {
    quorvelLog().standard(
        "QVActivationStats: Not hearing pid %d of user %u: the launched pid %d is another user's", peer.pid(),
        peer.uid(), pid);
  }
  return false;
}

void MessageDispatcher::activationBegin(const platform::Peer& peer, const IpcMessage& message) {
  if (!isHeard(peer, message)) return;
  const Log log = quorvelLog();
  log.debug("QVActivationStats: Noting an app activation begin");
  const auto pid = static_cast<int32_t>(message.int64(QV_KEY_PID));
  const char* bundleID = message.string(QV_KEY_BUNDLE_ID);
  const uint64_t startTimeMs = message.uint64(QV_KEY_START_TIME);
  const uint64_t launchProxyStartMs = message.uint64(QV_KEY_LAUNCH_PROXY_START);
  const auto state = static_cast<uint32_t>(message.int64(QV_KEY_ACTIVATION_STATE));
  const auto type = static_cast<uint32_t>(message.int64(QV_KEY_ACTIVATION_TYPE));
  log.info(
      "QVActivationStats: ActivationBegin Command: Pid:%d BundleID:%s "
      "StartTime:%llu IPXStartTime:%llu Foreground:%d ActivationType:%d",
      pid, bundleID, static_cast<unsigned long long>(startTimeMs),
      static_cast<unsigned long long>(launchProxyStartMs), static_cast<int>(state), static_cast<int>(type));
  if (!bundleID) {
    log.standard(
        "QVActivationStats: Failed to get bundle-id for app activation begin command, "
        "this activation will be ignored");
    return;
  }
  log.info("QVActivationStats: %s[%d] activation begin (%s)", bundleID, pid, type == 1 ? "launch" : "resume");
  AppActivationTracker::sharedInstance().beginAppActivationTrackingForPID(
      peer.uid(), pid, bundleID, startTimeMs, launchProxyStartMs, state, type);
}

void MessageDispatcher::activationEnd(const platform::Peer& peer, const IpcMessage& message) {
  if (!isHeard(peer, message)) return;
  const Log log = quorvelLog();
  log.debug("QVActivationStats: Noting an app activation end");
  const auto pid = static_cast<int32_t>(message.int64(QV_KEY_PID));
  const char* bundleID = message.string(QV_KEY_BUNDLE_ID);
  const uint64_t endTimeMs = message.uint64(QV_KEY_END_TIME);
  const auto state = static_cast<uint32_t>(message.int64(QV_KEY_ACTIVATION_STATE));
  const auto result = static_cast<uint32_t>(message.int64(QV_KEY_ACTIVATION_RESULT));
  log.info(
      "QVActivationStats: ActivationEnd Command: Pid:%d BundleID:%s EndTime:%llu "
      "Foreground:%d ActivationResult:%d",
      pid, bundleID, static_cast<unsigned long long>(endTimeMs), static_cast<int>(state),
      static_cast<int>(result));
  if (!bundleID) {
    log.standard("QVActivationStats: Failed to get bundleID for app activation end command, ignoring this");
    return;
  }
  log.info("QVActivationStats: %s[%d] activation end", bundleID, pid);
  AppActivationTracker::sharedInstance().endAppActivationTrackingForPID(peer.uid(), pid, bundleID, endTimeMs,
                                                                        state, result);
}

void MessageDispatcher::fenceBegin(const IpcMessage& message) {
  quorvelLog().info("QVFenceTracking: Fence begin");
  fences_.begin(message.int64(QV_KEY_NAME), message.int64(QV_KEY_START_TIME));
}

void MessageDispatcher::fenceEnd(const IpcMessage& message) {
  quorvelLog().info("QVFenceTracking: Fence end");
  const int64_t name = message.int64(QV_KEY_NAME);
  if (!fences_.end(name, message.int64(QV_KEY_END_TIME))) {
    quorvelLog().standard("QVFenceTracking: Fence end, failed to find corresponding fence(%llu)",
                          static_cast<unsigned long long>(name));
  }
}

void MessageDispatcher::fenceBlown(const IpcMessage& message) {
  quorvelLog().standard("QVFenceTracking: Fence blown");
  const auto process = QVProcessInfo::processForFenceHangs();
  if (!process) {
    quorvelLog().standard("Got Fence Blown message but can't find processForHangs");
    return;
  }
  recordFenceHang(*process, 0, static_cast<uint64_t>(message.int64(QV_KEY_START_TIME)),
                  static_cast<uint64_t>(message.int64(QV_KEY_END_TIME)), settings().enableKelvane);
}

}  // namespace quorveld
