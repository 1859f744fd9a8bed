#include "tests/sim/sim_services.h"

#include <algorithm>

namespace quorveld::sim {

using platform::LogLevel;
using platform::PreferenceDictionary;
using platform::PreferenceValue;

struct SimNotifications::Subscriber {
  std::string name;
  platform::WorkQueue& queue;
  platform::Task handler;
  bool pending = false;
};

class SimSubscription final : public platform::Subscription {
 public:
  SimSubscription(SimNotifications& notifications, std::shared_ptr<SimNotifications::Subscriber> subscriber)
      : notifications_(notifications), subscriber_(std::move(subscriber)) {}

  std::optional<uint64_t> state() const override {
    if (notifications_.faults_.fails(Op::notificationState)) return std::nullopt;
    const auto state = notifications_.states_.find(subscriber_->name);
    return state == notifications_.states_.end() ? 0 : state->second;
  }

 private:
  SimNotifications& notifications_;
  std::shared_ptr<SimNotifications::Subscriber> subscriber_;
};

std::unique_ptr<platform::Subscription> SimNotifications::subscribe(std::string_view name,
                                                                    platform::WorkQueue& queue,
                                                                    platform::Task handler) {
  auto subscriber = std::make_shared<Subscriber>(Subscriber{std::string(name), queue, std::move(handler)});
  if (!faults_.fails(Op::subscribe)) subscribers_.push_back(subscriber);
  return std::make_unique<SimSubscription>(*this, std::move(subscriber));
}

void SimNotifications::post(const std::string& name, uint64_t state) {
  states_[name] = state;
  for (const auto& weak : subscribers_) {
    const auto subscriber = weak.lock();
    if (!subscriber || subscriber->name != name || std::exchange(subscriber->pending, true)) continue;
    subscriber->queue.async([weak] {
      const auto alive = weak.lock();
      if (!alive) return;
      alive->pending = false;
      alive->handler();
    });
  }
}

void SimNotifications::take(std::string_view name) {
  if (const auto state = states_.find(name); state != states_.end()) states_.erase(state);
}

bool SimNotifications::subscribed(std::string_view name) const {
  return std::any_of(subscribers_.begin(), subscribers_.end(), [name](const auto& weak) {
    const auto subscriber = weak.lock();
    return subscriber && subscriber->name == name;
  });
}

SimPreferences::Domain& SimPreferences::at(std::string_view domain) {
  const auto known = domains_.find(domain);
  if (known != domains_.end()) return known->second;
  Domain& fresh = domains_[std::string(domain)];
  fresh.values = stored_[std::string(domain)];
  return fresh;
}

std::optional<PreferenceValue> SimPreferences::value(std::string_view key, std::string_view domain) {
  const PreferenceDictionary& values = at(domain).values;
  const auto entry = values.find(key);
  return entry == values.end() ? std::nullopt : std::optional(entry->second);
}

void SimPreferences::set(std::string_view key, PreferenceValue value, std::string_view domain) {
  Domain& own = at(domain);
  own.values.insert_or_assign(std::string(key), value);
  own.unwritten.insert_or_assign(std::string(key), std::move(value));
}

void SimPreferences::remove(std::string_view key, std::string_view domain) {
  Domain& own = at(domain);
  own.values.erase(std::string(key));
  own.unwritten.insert_or_assign(std::string(key), std::nullopt);
}

void SimPreferences::synchronise(std::string_view domain) {
  synchronised.emplace_back(domain);
  Domain& own = at(domain);
  if (faults_.fails(Op::synchronise)) return;
  PreferenceDictionary& stored = stored_[std::string(domain)];
  for (auto& [key, value] : own.unwritten) {
    stored.erase(key);
    if (value) stored.emplace(key, std::move(*value));
  }
  own.unwritten.clear();
  own.values = stored;
}

PreferenceDictionary SimPreferences::managedDictionary(std::string_view path) {
  const auto file = managed.find(path);
  if (faults_.fails(Op::readManaged) || file == managed.end()) return {};
  return file->second;
}

std::optional<PreferenceValue> SimPreferences::stored(const std::string& key, const char* domain) const {
  const auto values = stored_.find(domain);
  if (values == stored_.end()) return std::nullopt;
  const auto entry = values->second.find(key);
  return entry == values->second.end() ? std::nullopt : std::optional(entry->second);
}

class SimLogs::Handle final : public platform::LogHandle {
 public:
  Handle(SimLogs& logs, std::string subsystem) : logs_(logs), subsystem_(std::move(subsystem)) {}

  bool enabled(LogLevel level) const override { return !logs_.disabled.contains(level); }
  void write(LogLevel level, std::string_view text, const platform::LogEvent& event) override {
    std::string finding = std::string(event.cause) + " ";
    finding.append(event.culprit).append(" ").append(event.signature);
    logs_.lines.push_back(
        {level, subsystem_, std::string(text), event.kind, event.pid, event.durationMs, finding});
  }
  bool signpostsEnabled() const override { return logs_.signpostsEnabled; }
  void signpostIntervalBegin(uint64_t id, std::string_view text) override {
    logs_.signposts.push_back({true, id, std::string(text)});
  }
  void signpostIntervalEnd(uint64_t id, std::string_view text) override {
    logs_.signposts.push_back({false, id, std::string(text)});
  }

 private:
  SimLogs& logs_;
  std::string subsystem_;
};

SimLogs::SimLogs() = default;
SimLogs::~SimLogs() = default;

platform::LogHandle& SimLogs::handle(std::string_view subsystem, std::string_view category) {
  auto& handle = handles_[{std::string(subsystem), std::string(category)}];
  if (!handle) handle = std::make_unique<Handle>(*this, std::string(subsystem));
  return *handle;
}

int SimLogs::count(LogLevel level, std::string_view text) const {
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
    return line.level == level && line.text == text;
  }));
}

bool SimLogs::hasPrefix(LogLevel level, std::string_view prefix) const {
  return std::any_of(lines.begin(), lines.end(), [&](const LogLine& line) {
    return line.level == level && line.text.starts_with(prefix);
  });
}

std::string SimLogs::dump() const {
  static constexpr const char* kNames[] = {"default ", "info ", "debug "};
  std::string all;
  for (const LogLine& line : lines) all += kNames[static_cast<int>(line.level)] + line.text + '\n';
  return all;
}

std::unique_ptr<platform::RenderPort> SimRenderServer::port() {
  class Port final : public platform::RenderPort {
   public:
    explicit Port(SimRenderServer& server) : server_(server) { ++server_.openPorts; }
    ~Port() override { --server_.openPorts; }
    void setDebugMessage(const char* text) override {
      server_.messages.push_back(text ? std::optional<std::string>(text) : std::nullopt);
    }

   private:
    SimRenderServer& server_;
  };
  ++portRequests;
  if (faults_.fails(Op::renderPort)) return nullptr;
  return std::make_unique<Port>(*this);
}

}  // namespace quorveld::sim
