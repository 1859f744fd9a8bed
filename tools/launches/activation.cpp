#include "tools/launches/activation.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <tuple>

namespace quorvelctl {

using Json = nlohmann::json;

namespace {

constexpr const char* kOthersKey = "-1";
constexpr uint64_t kFlagUnitMs = 50;
constexpr double kMaxSeconds = 1e11;  ///< of a date: what the C library can still tell

/// A whole number that fits its type, or nothing by Json::exception.
template <typename Number>
Number number(const Json& object, const char* key) {
  const Json& value = object.at(key);
  if (!value.is_number_integer()) throw Json::type_error::create(302, "no whole number", &value);
  return value.get<Number>();
}

int32_t pidOf(uint64_t identifier) {
  return static_cast<int32_t>(identifier);
}

ProcessCost costOf(const Json& json) {
  ProcessCost cost;
  cost.identifier = number<uint64_t>(json, "UniqueID");
  cost.pid = pidOf(cost.identifier);
  cost.userMs = number<uint64_t>(json, "TotalCPU_ms");
  for (size_t i = 0; i < kCpuClasses.size(); ++i)
    cost.classMs[i] = number<uint64_t>(json, kCpuClasses[i].key);
  cost.readKb = number<uint64_t>(json, "IOReads_kb");
  cost.writtenKb = number<uint64_t>(json, "IOWrites_kb");
  cost.pageIns = number<uint64_t>(json, "PageIns");
  const auto life = number<uint64_t>(json, "ProcessLifecycleState");
  cost.life = life == 1   ? ProcessCost::Life::born
              : life == 2 ? ProcessCost::Life::ended
                          : ProcessCost::Life::throughout;
  return cost;
}

VmFigures vmFigures(const Json& vmData, const char* key) {
  VmFigures figures;
  const auto end = vmData.find(key);
  if (end == vmData.end()) return figures;
  for (const auto& [name, value] : end->items()) {
    if (value.is_number_integer()) figures[name] = value.get<int64_t>();
  }
  return figures;
}

bool spentMore(const ProcessCost& a, const ProcessCost& b) {
  const auto weight = [](const ProcessCost& cost) {
    return std::tuple(cost.cpuMs(), cost.readKb + cost.writtenKb, cost.pageIns);
  };
  if (weight(a) != weight(b)) return weight(a) > weight(b);
  return a.pid < b.pid;
}

Activation activationOf(const Json& event) {
  const Json& data = event.at("activationData");
  Activation activation;
  activation.identifier = number<uint64_t>(data, "ActivationID");
  activation.startedAt = std::clamp(data.at("Timestamp").get<double>(), -kMaxSeconds, kMaxSeconds);
  activation.bundleID = data.at("BundleID").get<std::string>();
  activation.pid = pidOf(number<uint64_t>(data, "UniqueID"));
  activation.launch = number<uint64_t>(data, "ActivationType") == 1;
  activation.result = number<int>(data, "ActivationResult");
  // The daemon tells the difference of two times that it was given in 32 bits, whichever was first.
  const auto durationMs = number<uint64_t>(data, "ActivationDuration_ms");
  if (durationMs <= std::numeric_limits<int32_t>::max()) activation.durationMs = durationMs;
  activation.systemUptimeS = number<int64_t>(data, "SystemUptime");
  const auto flags = number<uint64_t>(data, "ActivationFlags");
  activation.otherCount = flags & 0xff;
  activation.beginHeardLateMs = (flags >> 8 & 0x1f) * kFlagUnitMs;
  activation.endHeardLateMs = (flags >> 13 & 0x1f) * kFlagUnitMs;
  for (const auto& [key, cost] : event.at("cpuData").items()) {
    if (key == kOthersKey) {
      activation.others = costOf(cost);
    } else {
      activation.processes.push_back(costOf(cost));
    }
  }
  std::sort(activation.processes.begin(), activation.processes.end(), spentMore);
  const Json moreData = event.value("moreData", Json::object());
  for (const auto& [pid, more] : moreData.items()) {
    ProcessMore process;
    process.name = more.at("ProcessName").get<std::string>();
    std::from_chars(pid.data(), pid.data() + pid.size(), process.pid);
    if (more.contains("CPU_ms")) process.cpuMs = number<uint64_t>(more, "CPU_ms");
    if (more.contains("ChildCPU_ms")) process.childCpuMs = number<uint64_t>(more, "ChildCPU_ms");
    activation.more.push_back(std::move(process));
  }
  std::sort(activation.more.begin(), activation.more.end(), [](const ProcessMore& a, const ProcessMore& b) {
    return std::tuple(a.cpuMs, a.childCpuMs, b.pid) > std::tuple(b.cpuMs, b.childCpuMs, a.pid);
  });
  activation.vmAtBegin = vmFigures(event.at("vmData"), "1");
  activation.vmAtEnd = vmFigures(event.at("vmData"), "2");
  return activation;
}

}  // namespace

uint64_t ProcessCost::cpuMs() const {
  return std::accumulate(classMs.begin(), classMs.end(), uint64_t{0});
}

bool isActivationOf(uint64_t identifier, int32_t pid, uint64_t startMs) {
  constexpr uint64_t kPidBits = 0xffff;  // an identifier holds so many of the pid, and 32 of the time
  return identifier >> 32 == (startMs & 0xffffffff) &&
         (identifier & kPidBits) == (static_cast<uint64_t>(pid) & kPidBits);
}

std::optional<uint64_t> activationIdentifierOf(std::string_view line) {
  constexpr std::string_view kKey =
      "\"ActivationID\":";  // the first one stands before any text of a client's
  const size_t at = line.find(kKey);
  if (at == std::string_view::npos) return std::nullopt;
  line.remove_prefix(at + kKey.size());
  uint64_t identifier = 0;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), identifier);
  return error == std::errc() ? std::optional(identifier) : std::nullopt;
}

void ActivationReader::read(std::string_view text) {
  for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    if (!readLine(text.substr(0, end))) ++brokenLines_;
    text.remove_prefix(end + 1);
  }
}

bool ActivationReader::readLine(std::string_view line) {
  try {
    const Json event = Json::parse(line);
    Activation activation = activationOf(event);
    for (const auto& [key, process] : event.at("processData").items()) {
      const auto identifier = number<uint64_t>(process, "UniqueID");
      names_[identifier] = lastNames_[pidOf(identifier)] = process.at("ProcessName").get<std::string>();
    }
    for (ProcessCost& cost : activation.processes) cost.name = nameOf(cost);
    activations_.push_back(std::move(activation));
    return true;
  } catch (const Json::exception&) {
    return false;
  }
}

std::string ActivationReader::nameOf(const ProcessCost& cost) const {
  const auto named = names_.find(cost.identifier);
  if (named != names_.end()) return named->second;
  const auto before = lastNames_.find(cost.pid);
  return before == lastNames_.end() ? std::string() : "was " + before->second;
}

}  // namespace quorvelctl
