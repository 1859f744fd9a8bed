#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/platform.h"
#include "platform/preferences_store.h"
#include "tests/sim/sim_ipc.h"

namespace quorveld::contract {

/// A client's end of one connection to the platform under test.
class Client {
 public:
  virtual ~Client() = default;
  virtual void send(const sim::SimMessage& message) = 0;
  /// Sends a message with "shmem": `lengthBytes` of memory, of which the first byte is `firstByte`.
  virtual void sendMemory(size_t lengthBytes, char firstByte) = 0;
  virtual char firstByteOfMemory() = 0;
  virtual void disconnect() = 0;
};

/// One platform and the hands that reach it from the outside: what users, other processes and the disk do.
class Bench {
 public:
  virtual ~Bench() = default;

  virtual const platform::Platform& platform() = 0;
  virtual int32_t clientPid() = 0;

  /// A client connects. From outside the main queue's tasks, before it is served or while.
  virtual std::unique_ptr<Client> connect() = 0;
  virtual void postNotification(const std::string& name, uint64_t state) = 0;
  virtual void requestStatus() = 0;
  virtual void requestReload() = 0;

  /// A directory that exists and is empty, as the platform's Files name it.
  virtual std::string directory() = 0;
  virtual std::optional<std::string> content(const std::string& path) = 0;
  virtual void putLink(const std::string& path, const std::string& target) = 0;

  /// Writes the user's preferences: all of a domain, as another process would.
  virtual void userSets(const platform::PreferenceDictionary& values, const std::string& domain) = 0;
  virtual void putManaged(const platform::PreferenceDictionary& values, const std::string& path) = 0;
  virtual void breakManaged(const std::string& path) = 0;
};

struct BenchFactory {
  const char* name;
  std::unique_ptr<Bench> (*make)();
};

std::unique_ptr<Bench> makeSimBench();
std::unique_ptr<Bench> makeLinuxBench();

}  // namespace quorveld::contract
