#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "abi/hang_region.h"

/// A message as it arrived: each key with its type and value as text, "x 5".
struct Received {
  std::map<std::string, std::string> values;
  std::string operator[](const std::string& key) const {
    const auto found = values.find(key);
    return found == values.end() ? "" : found->second;
  }
};

/// The client's memory as a daemon maps it.
class MappedRegion {
 public:
  explicit MappedRegion(int fd);
  ~MappedRegion();
  MappedRegion(const MappedRegion&) = delete;
  MappedRegion& operator=(const MappedRegion&) = delete;

  hangEvent& slot(size_t i) const { return region_->slots[i]; }
  const QVSharedHangRegion& header() const { return *region_; }
  /// The slots that hold an operation.
  std::vector<const hangEvent*> inFlight() const;

 private:
  QVSharedHangRegion* region_;
};

/// The daemon's end of the protocol, on a thread of its own, below a scratch root that $QUORVELD_ROOT names.
class FakeDaemon {
 public:
  FakeDaemon();
  ~FakeDaemon();
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  void start();
  /// Closes every connection and the socket; the file goes too.
  void stop();
  /// Stops or goes on reading what clients send.
  void pause(bool paused) { paused_ = paused; }

  /// What has come so far, once it is `count` messages or more.
  std::vector<Received> await(size_t count);
  size_t received() const { return receivedCount_; }
  size_t connections() const { return connections_; }
  /// The memory that came last; -1 when none did. The daemon's own.
  int memory() const { return memory_; }

 private:
  void serve();
  void accept();
  void take(sd_bus_message* message);

  std::string root_;
  std::atomic<bool> running_{false};
  std::atomic<bool> paused_{false};
  std::atomic<size_t> connections_{0};
  std::atomic<size_t> receivedCount_{0};
  std::atomic<int> memory_{-1};
  std::vector<int> memories_;  ///< all that came: the test may be using any of them
  int listener_ = -1;
  std::vector<sd_bus*> buses_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Received> received_;
  std::thread thread_;
};

/// Lets qv_process run for as long as `condition` is false; false when it stays so.
bool processUntil(const std::function<bool()>& condition);

/// qv_watch, and what becomes of it where the machine is too busy for an answer in its own time.
int watchPatiently(const char* bundleId, const char* name);
