#include "tools/launches/activation_text.h"

#include <cmath>
#include <ctime>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "tools/base/table.h"
#include "tools/base/units.h"

namespace quorvelctl {
namespace {

constexpr int64_t kReferenceDate = 978'307'200;  ///< 2001-01-01 00:00:00 UTC in Unix time
constexpr size_t kMaxRows = 20;
constexpr size_t kMaxNames = 12;

std::string resultText(int result) {
  switch (result) {
    case 0:
      return "ok";
    case 32:
      return "an end without a begin";
    case 33:
      return "no end came";
    default:
      return "result " + std::to_string(result);
  }
}

const char* lifeText(ProcessCost::Life life) {
  switch (life) {
    case ProcessCost::Life::born:
      return "born";
    case ProcessCost::Life::ended:
      return "ended";
    case ProcessCost::Life::throughout:
      break;
  }
  return "throughout";
}

std::string startText(double startedAt, bool utc) {
  const auto time = static_cast<time_t>(std::floor(startedAt)) + kReferenceDate;
  tm parts{};
  char text[64] = "";
  if (utc ? gmtime_r(&time, &parts) : localtime_r(&time, &parts))
    std::strftime(text, sizeof text, utc ? "%Y-%m-%dT%H:%M:%SZ" : "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

std::string nameText(const ProcessCost& cost) {
  return cost.name.empty() ? "?" : printable(cost.name);
}

/// Figures of 0 are the most frequent and say nothing.
std::string orDash(uint64_t figure, const std::string& text) {
  return figure == 0 ? "-" : text;
}

std::vector<std::string> costRow(const ProcessCost& cost, std::string pid, std::string who) {
  constexpr uint64_t kKilobyte = 1024;
  return {orDash(cost.cpuMs(), durationText(static_cast<double>(cost.cpuMs()))),
          orDash(cost.userMs, durationText(static_cast<double>(cost.userMs))),
          orDash(cost.readKb, sizeText(cost.readKb * kKilobyte)),
          orDash(cost.writtenKb, sizeText(cost.writtenKb * kKilobyte)),
          orDash(cost.pageIns, std::to_string(cost.pageIns)),
          std::move(pid),
          std::move(who)};
}

std::string whoText(const ProcessCost& cost, const Activation& activation) {
  std::string who = nameText(cost);
  if (cost.pid == activation.pid) who += ", the application";
  if (cost.life != ProcessCost::Life::throughout) who += std::string(", ") + lifeText(cost.life);
  return who;
}

const ProcessMore* moreOf(const Activation& activation, int32_t pid) {
  for (const ProcessMore& more : activation.more) {
    if (more.pid == pid) return &more;
  }
  return nullptr;
}

std::vector<std::string> childrenRow(const ProcessMore& more, std::string who) {
  return {durationText(static_cast<double>(more.childCpuMs)), "-", "-", "-", "-", "", std::move(who)};
}

/// ", most by dd (31) 1.20 s, kswapd0 (55) 40 ms": of those that are too small by their user time.
std::string largestText(const Activation& activation) {
  std::string text;
  for (const ProcessMore& more : activation.more) {
    if (more.cpuMs == 0) continue;
    text += (text.empty() ? ", most by " : ", ") + printable(more.name) + " (" + std::to_string(more.pid) +
            ") " + durationText(static_cast<double>(more.cpuMs));
  }
  return text;
}

std::string costTable(const Activation& activation) {
  std::vector<std::vector<std::string>> rows{
      {"CPU", "USER", "READ", "WRITTEN", "PAGE-INS", "PID", "PROCESS"}};
  size_t left = 0;
  std::set<int32_t> listed;
  for (const ProcessCost& cost : activation.processes) {
    const ProcessMore* more = moreOf(activation, cost.pid);
    const bool hadChildren = more && more->childCpuMs > 0;
    if (!cost.spentSomething() && !hadChildren && cost.pid != activation.pid) continue;
    if (rows.size() > kMaxRows) {
      ++left;
      continue;
    }
    rows.push_back(costRow(cost, std::to_string(cost.pid), whoText(cost, activation)));
    if (hadChildren) rows.push_back(childrenRow(*more, "its children that ended"));
    listed.insert(cost.pid);
  }
  for (const ProcessMore& more : activation.more) {
    if (more.childCpuMs > 0 && !listed.contains(more.pid) && rows.size() <= kMaxRows)
      rows.push_back(childrenRow(
          more, "children of " + printable(more.name) + " (" + std::to_string(more.pid) + ") that ended"));
  }
  if (left > 0)
    rows.push_back({"", "", "", "", "", "", std::to_string(left) + " that spent less; --json has them"});
  if (activation.others && activation.otherCount > 0) {
    const std::string count =
        activation.otherCount < 255 ? std::to_string(activation.otherCount) : "255 or more";
    rows.push_back(costRow(*activation.others, "", count + " others together" + largestText(activation)));
  }
  return rows.size() == 1 ? "" : table(rows);
}

/// "born: sh (12), cat (13)", of those that spent nothing that was counted.
std::string namesOf(const Activation& activation, ProcessCost::Life life) {
  std::string names;
  size_t count = 0;
  for (const ProcessCost& cost : activation.processes) {
    if (cost.life != life || cost.spentSomething() || cost.pid == activation.pid) continue;
    if (++count > kMaxNames) continue;
    names += (count == 1 ? "" : ", ") + nameText(cost) + " (" + std::to_string(cost.pid) + ")";
  }
  if (count > kMaxNames) names += " and " + std::to_string(count - kMaxNames) + " more";
  return count == 0 ? "" : std::string(lifeText(life)) + ": " + names + "\n";
}

class Machine {
 public:
  Machine(const Activation& activation, uint64_t pageBytes)
      : begin_(activation.vmAtBegin), end_(activation.vmAtEnd), pageBytes_(pageBytes) {}

  std::string text() const {
    if (begin_.empty() || end_.empty()) return "";
    return "machine: " + sizeText(pagesAtEnd("FreeQueue")) + " free" + change("FreeQueue") + ", " +
           sizeText(grown("PageIns") * pageBytes_) + " read in, " + sizeText(grown("PageOuts") * pageBytes_) +
           " written out, " + std::to_string(grown("Faults")) + " faults" + swapText() + "\n";
  }

 private:
  static int64_t figure(const VmFigures& figures, const char* key) {
    const auto found = figures.find(key);
    return found == figures.end() ? 0 : found->second;
  }
  uint64_t pagesAtEnd(const char* key) const { return static_cast<uint64_t>(figure(end_, key)) * pageBytes_; }
  uint64_t grown(const char* key) const {
    const int64_t before = figure(begin_, key);
    const int64_t after = figure(end_, key);
    return after > before ? static_cast<uint64_t>(after) - static_cast<uint64_t>(before) : 0;
  }
  std::string change(const char* key) const {
    const uint64_t before = static_cast<uint64_t>(figure(begin_, key)) * pageBytes_;
    const uint64_t after = pagesAtEnd(key);
    if (after == before) return "";
    return after < before ? " (-" + sizeText(before - after) + ")" : " (+" + sizeText(after - before) + ")";
  }
  /// Said only when there was any: it is what makes launches slow.
  std::string swapText() const {
    std::string text;
    if (grown("SwapIns") > 0) text += ", " + sizeText(grown("SwapIns") * pageBytes_) + " swapped in";
    if (grown("SwapOuts") > 0) text += ", " + sizeText(grown("SwapOuts") * pageBytes_) + " swapped out";
    if (grown("Decompressions") > 0) text += ", " + std::to_string(grown("Decompressions")) + " decompressed";
    return text;
  }

  const VmFigures& begin_;
  const VmFigures& end_;
  uint64_t pageBytes_;
};

std::string titleOf(const Activation& activation) {
  std::string title = startText(activation.startedAt, false) + "  " + printable(activation.bundleID) + "  " +
                      (activation.launch ? "launch" : "resume") + " in " +
                      (activation.durationMs ? durationText(static_cast<double>(*activation.durationMs))
                                             : "no time: it ended before it began") +
                      ", " + resultText(activation.result);
  if (activation.beginHeardLateMs > 0)
    title += ", begin heard " + durationText(static_cast<double>(activation.beginHeardLateMs)) + " late";
  if (activation.endHeardLateMs > 0)
    title += ", end heard " + durationText(static_cast<double>(activation.endHeardLateMs)) + " late";
  return title + "\n";
}

nlohmann::ordered_json costJson(const ProcessCost& cost) {
  nlohmann::ordered_json classes = nlohmann::ordered_json::object();
  for (size_t i = 0; i < kCpuClasses.size(); ++i) classes[kCpuClasses[i].name] = cost.classMs[i];
  return {{"cpuMs", cost.cpuMs()}, {"userMs", cost.userMs},       {"cpuMsByClass", std::move(classes)},
          {"readKb", cost.readKb}, {"writtenKb", cost.writtenKb}, {"pageIns", cost.pageIns}};
}

}  // namespace

std::string activationText(const Activation& activation, uint64_t pageBytes) {
  std::string text = titleOf(activation);
  std::string body = costTable(activation) + namesOf(activation, ProcessCost::Life::born) +
                     namesOf(activation, ProcessCost::Life::ended) + Machine(activation, pageBytes).text();
  while (!body.empty()) {
    const size_t end = body.find('\n') + 1;
    text += "  " + body.substr(0, end);
    body.erase(0, end);
  }
  return text;
}

nlohmann::ordered_json activationJson(const Activation& activation) {
  nlohmann::ordered_json processes = nlohmann::ordered_json::array();
  for (const ProcessCost& cost : activation.processes) {
    nlohmann::ordered_json process{{"pid", cost.pid}, {"name", cost.name}, {"life", lifeText(cost.life)}};
    process.update(costJson(cost));
    processes.push_back(std::move(process));
  }
  nlohmann::ordered_json json{{"id", activation.identifier},
                              {"startedAt", startText(activation.startedAt, true)},
                              {"bundleID", activation.bundleID},
                              {"pid", activation.pid},
                              {"type", activation.launch ? "launch" : "resume"},
                              {"result", activation.result},
                              {"durationMs", nullptr},
                              {"beginHeardLateMs", activation.beginHeardLateMs},
                              {"endHeardLateMs", activation.endHeardLateMs},
                              {"systemUptimeS", activation.systemUptimeS},
                              {"processes", std::move(processes)}};
  if (activation.durationMs) json["durationMs"] = *activation.durationMs;
  if (activation.others) {
    json["others"] = {{"count", activation.otherCount}};
    json["others"].update(costJson(*activation.others));
  }
  if (!activation.more.empty()) {
    nlohmann::ordered_json& more = json["more"];
    for (const ProcessMore& process : activation.more) {
      more.push_back({{"pid", process.pid},
                      {"name", process.name},
                      {"cpuMs", process.cpuMs},
                      {"childCpuMs", process.childCpuMs}});
    }
  }
  json["vm"] = {{"begin", activation.vmAtBegin}, {"end", activation.vmAtEnd}};
  return json;
}

}  // namespace quorvelctl
