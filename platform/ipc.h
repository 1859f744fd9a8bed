#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/work_queue.h"

namespace quorveld::platform {

/// A client's memory, mapped read-write into this process; unmapped on destruction. It can't shrink under the
/// reader.
class SharedMapping {
 public:
  virtual ~SharedMapping() = default;
  virtual void* address() const = 0;
  virtual size_t lengthBytes() const = 0;
};

/// A shared-memory object that a message carries.
class SharedMemory {
 public:
  virtual ~SharedMemory() = default;

  /// Maps the whole object. Null when it can't be mapped or could be shrunk by its owner; the reason has been
  /// logged.
  [[nodiscard]] virtual std::unique_ptr<SharedMapping> map() = 0;
};

/// One dictionary message: keys with typed values. Everything in it is hostile until checked.
///
/// Valid only while the handler that it was given to runs; so are the texts that it hands out.
class IpcMessage {
 public:
  using Value = std::variant<int64_t, uint64_t, bool, const char*, SharedMemory*>;

  /// A key that comes twice keeps its first value.
  void add(std::string_view key, Value value) { values_.emplace_back(key, value); }
  void clear() { values_.clear(); }

  /// A missing key, or one with a value of another type, reads as 0.
  int64_t int64(std::string_view key) const { return get<int64_t>(key).value_or(0); }
  uint64_t uint64(std::string_view key) const { return get<uint64_t>(key).value_or(0); }
  /// … as false.
  bool boolean(std::string_view key) const { return get<bool>(key).value_or(false); }
  /// … as null.
  const char* string(std::string_view key) const { return get<const char*>(key).value_or(nullptr); }
  SharedMemory* sharedMemory(std::string_view key) const { return get<SharedMemory*>(key).value_or(nullptr); }

 private:
  template <typename T>
  std::optional<T> get(std::string_view key) const {
    for (const auto& [name, value] : values_) {
      if (name != key) continue;
      const T* typed = std::get_if<T>(&value);
      return typed ? std::optional<T>(*typed) : std::nullopt;
    }
    return std::nullopt;
  }

  std::vector<std::pair<std::string_view, Value>> values_;
};

enum class IpcErrorKind { connectionInvalid, connectionInterrupted, terminationImminent, other };

/// The transport's word that something happened to a connection, or to the listener.
struct IpcError {
  IpcErrorKind kind;
  std::string description;
};

/// Something that arrived and is neither a dictionary nor an error.
struct IpcOddEvent {
  std::string description;
};

using IpcEvent = std::variant<const IpcMessage*, const IpcError*, const IpcOddEvent*>;

/// One client's connection. Belongs to the listener's queue; the listener keeps it until the connection has
/// gone.
class Peer {
 public:
  virtual ~Peer() = default;

  /// The process at the other end when it connected, as the kernel attests; 0 when it isn't known.
  virtual int32_t pid() const = 0;

  /// The user who connected, likewise.
  virtual uint32_t uid() const = 0;

  /// Whether it may speak of that process's launches: of its own user's, of one that has ended, of any where
  /// the system says so.
  virtual bool mayAnnounce(int32_t launchedPid) const = 0;

  /// Sets what receives this peer's events, on the listener's queue. After connectionInvalid no further event
  /// comes.
  virtual void setHandler(std::function<void(const IpcEvent&)> handler) = 0;

  /// Starts delivery; until then what the peer sends waits.
  virtual void resume() = 0;

  /// Closes the connection; the peer's last event, connectionInvalid, is delivered before this returns.
  virtual void disconnect() = 0;
};

/// What a listener delivers: a new peer, an error, or an event of an unknown type.
using ListenerEvent = std::variant<std::shared_ptr<Peer>, const IpcError*, const IpcOddEvent*>;

class Listener {
 public:
  virtual ~Listener() = default;
  virtual void setHandler(std::function<void(const ListenerEvent&)> handler) = 0;

  /// Starts accepting. A listener that can't be had delivers one connectionInvalid error.
  virtual void resume() = 0;
};

class Ipc {
 public:
  virtual ~Ipc() = default;

  /// A listener on the named service whose events, and whose peers' events, arrive on `queue`. Destroying it
  /// closes all.
  [[nodiscard]] virtual std::unique_ptr<Listener> listen(std::string_view serviceName, MainQueue& queue) = 0;

  /// The pid that a listener's error event carries: there is no peer, so it names no process.
  virtual int32_t pidOf(const IpcError& error) = 0;
};

}  // namespace quorveld::platform
