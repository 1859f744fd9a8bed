#include "tools/symbolicate.h"

#include <cctype>
#include <map>
#include <set>

#include "tools/json_access.h"
#include "tools/report.h"

namespace quorvelctl {
namespace {

/// Keeps the order of the members, so that the header stays in front.
using OrderedJson = nlohmann::ordered_json;

/// New names by old ones. Modules may share a file name and so an old name; such a one has no new name ("").
using Renamed = std::map<std::string, std::string>;

void note(Renamed& renamed, const std::string& from, const std::string& to) {
  const auto [known, isNew] = renamed.try_emplace(from, to);
  if (!isNew && known->second != to) known->second.clear();
}

Renamed nameFrames(OrderedJson& frames, Symbols& symbols, NamedReport& result) {
  Renamed renamed;
  std::set<std::string> withoutFile;
  for (OrderedJson& entry : frames) {
    if (!entry.is_object() || textMember(entry, "category") == "kernel") continue;
    const ReportFrame frame = reportFrame(entry);
    ++result.frames;
    std::string name = symbols.nameOf(frame);
    if (!frame.module.empty() && !symbols.hasFileOf(frame)) withoutFile.insert(frame.module);
    if (name.empty() && frame.name != frame.place()) name = frame.name;  // somebody named it before
    if (name.empty() || frame.module.empty()) continue;
    ++result.named;
    note(renamed, frame.name, name);
    entry["name"] = std::move(name);
  }
  result.withoutFile.assign(withoutFile.begin(), withoutFile.end());
  return renamed;
}

void renameIntervals(OrderedJson& events, const Renamed& renamed) {
  for (OrderedJson& event : events) {
    if (!event.is_object() || event.value("cat", OrderedJson()) != "user") continue;
    const auto name = event.find("name");
    if (name == event.end() || !name->is_string()) continue;
    const auto known = renamed.find(name->get<std::string>());
    if (known != renamed.end() && !known->second.empty()) *name = known->second;
  }
}

/// The verdict may say in which function the thread was.
void renameIn(OrderedJson& sentence, const Renamed& renamed) {
  if (!sentence.is_string()) return;
  auto text = sentence.get<std::string>();
  for (const auto& [from, to] : renamed) {
    const size_t at = text.find(" " + from);
    const size_t end = at + 1 + from.size();
    if (to.empty() || at == std::string::npos) continue;
    if (end < text.size() && std::isalnum(static_cast<unsigned char>(text[end]))) continue;  // a longer one
    text.replace(at + 1, from.size(), to);
  }
  sentence = std::move(text);
}

}  // namespace

std::optional<NamedReport> nameReport(std::string_view text, Symbols& symbols, std::string& error) {
  try {
    OrderedJson report = OrderedJson::parse(text);
    if (!report.is_object() || !report.contains("metadata")) {
      error = "it has no metadata";
      return std::nullopt;
    }
    NamedReport result;
    const auto frames = report.find("stackFrames");
    const auto events = report.find("traceEvents");
    Renamed renamed;
    if (frames != report.end()) renamed = nameFrames(*frames, symbols, result);
    if (events != report.end()) renameIntervals(*events, renamed);
    const OrderedJson::json_pointer sentence("/metadata/verdict/sentence");
    if (report.contains(sentence)) renameIn(report[sentence], renamed);
    result.text = report.dump();
    return result;
  } catch (const OrderedJson::exception& problem) {
    error = problem.what();
    return std::nullopt;
  }
}

}  // namespace quorvelctl
