#pragma once

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/analytics.h"
#include "platform/device.h"
#include "platform/log.h"
#include "platform/notifications.h"
#include "platform/power_log.h"
#include "platform/preferences_store.h"
#include "platform/render_server.h"
#include "tests/sim/fault_plan.h"

namespace quorveld::sim {

class SimNotifications final : public platform::Notifications {
 public:
  explicit SimNotifications(FaultPlan& faults) : faults_(faults) {}

  std::unique_ptr<platform::Subscription> subscribe(std::string_view name, platform::WorkQueue& queue,
                                                    platform::Task handler) override;

  void take(std::string_view name) override;

  void post(const std::string& name, uint64_t state = 0);
  /// Whether a post of that name waits to be taken.
  bool posted(std::string_view name) const { return states_.contains(name); }
  bool subscribed(std::string_view name) const;

 private:
  friend class SimSubscription;
  struct Subscriber;

  FaultPlan& faults_;
  std::map<std::string, uint64_t, std::less<>> states_;
  std::vector<std::weak_ptr<Subscriber>> subscribers_;
};

class SimPreferences final : public platform::PreferencesStore {
 public:
  explicit SimPreferences(FaultPlan& faults) : faults_(faults) {}

  std::optional<platform::PreferenceValue> value(std::string_view key, std::string_view domain) override;
  void set(std::string_view key, platform::PreferenceValue value, std::string_view domain) override;
  void remove(std::string_view key, std::string_view domain) override;
  void synchronise(std::string_view domain) override;
  platform::PreferenceDictionary managedDictionary(std::string_view path) override;

  static constexpr const char* kDomain = "com.corvix.telvo";

  /// The user's own write: seen at the next synchronisation.
  void userSets(const std::string& key, platform::PreferenceValue::Variant value,
                const char* domain = kDomain) {
    stored_[domain].insert_or_assign(key, platform::PreferenceValue(std::move(value)));
  }
  void userRemoves(const std::string& key, const char* domain = kDomain) { stored_[domain].erase(key); }
  /// What others would read.
  std::optional<platform::PreferenceValue> stored(const std::string& key, const char* domain = kDomain) const;

  std::map<std::string, platform::PreferenceDictionary, std::less<>> managed;
  std::vector<std::string> synchronised;  ///< domains, in order

 private:
  struct Domain {
    platform::PreferenceDictionary values;
    std::map<std::string, std::optional<platform::PreferenceValue>, std::less<>> unwritten;
  };

  Domain& at(std::string_view domain);

  FaultPlan& faults_;
  std::map<std::string, platform::PreferenceDictionary, std::less<>> stored_;
  std::map<std::string, Domain, std::less<>> domains_;
};

struct LogLine {
  platform::LogLevel level;
  std::string subsystem;
  std::string text;
  platform::LogEventKind event;
  int32_t pid;  ///< whom the event is about
  double durationMs;
  std::string finding;  ///< cause, culprit and signature, with blanks between
};

struct SignpostMark {
  bool begin;
  uint64_t id;
  std::string text;
};

class SimLogs final : public platform::Logs {
 public:
  SimLogs();
  ~SimLogs() override;

  platform::LogHandle& handle(std::string_view subsystem, std::string_view category) override;
  uint32_t setSender(uint32_t uid) override { return std::exchange(sender, uid); }
  void system(std::string_view text) override { systemLines.emplace_back(text); }

  /// How often a line of exactly this level and text was logged since the last `clear`.
  int count(platform::LogLevel level, std::string_view text) const;
  bool has(platform::LogLevel level, std::string_view text) const { return count(level, text) > 0; }
  /// As `has`, for texts with parts that can't be known, such as addresses.
  bool hasPrefix(platform::LogLevel level, std::string_view prefix) const;
  void clear() { lines.clear(); }
  /// All lines, one a row: what a failed expectation shows.
  std::string dump() const;

  std::vector<LogLine> lines;
  std::vector<std::string> systemLines;
  std::vector<SignpostMark> signposts;
  uint32_t sender = 0;
  bool signpostsEnabled = true;
  std::set<platform::LogLevel> disabled;

 private:
  class Handle;

  std::map<std::pair<std::string, std::string>, std::unique_ptr<Handle>> handles_;
};

class SimAnalytics final : public platform::Analytics {
 public:
  void setScalar(std::string_view key, int64_t value) override {
    scalars.insert_or_assign(std::string(key), value);
  }
  void addToScalar(std::string_view key, int64_t value, platform::KeyOwner) override {
    added[std::string(key)] += value;
  }
  void pushDistribution(std::string_view key, double value, platform::KeyOwner) override {
    distributions[std::string(key)].push_back(value);
  }

  std::map<std::string, int64_t> scalars;
  std::map<std::string, int64_t> added;
  std::map<std::string, std::vector<double>> distributions;
};

class SimDevice final : public platform::Device {
 public:
  explicit SimDevice(std::mt19937_64& random) : random_(random) {}

  bool capability(std::string_view name) override { return capabilities.contains(name); }
  platform::OSVersion osVersion() override { return version; }
  std::string machine() override { return "sim1,1"; }
  uint32_t uniformRandom(uint32_t bound) override {
    return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random_);
  }

  std::set<std::string, std::less<>> capabilities;
  platform::OSVersion version{"SimOS", "1.2", "3A45"};

 private:
  std::mt19937_64& random_;
};

class SimRenderServer final : public platform::RenderServer {
 public:
  explicit SimRenderServer(FaultPlan& faults) : faults_(faults) {}

  std::unique_ptr<platform::RenderPort> port() override;

  std::vector<std::optional<std::string>> messages;  ///< nothing: cleared
  int openPorts = 0;
  int portRequests = 0;

 private:
  FaultPlan& faults_;
};

class SimPowerLog final : public platform::PowerLog {
 public:
  void handOver(const platform::ActivationEvent& event) override { events.push_back(event); }
  void leaveOut(uint64_t activationID, std::string_view reason) override {
    leftOut.emplace_back(activationID, reason);
  }

  std::vector<platform::ActivationEvent> events;
  std::vector<std::pair<uint64_t, std::string>> leftOut;
};

}  // namespace quorveld::sim
