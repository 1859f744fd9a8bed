#include "tools/symbols/symbolicate.h"

#include <cctype>
#include <map>
#include <set>
#include <tuple>

#include "tools/report/report.h"
#include "tools/report/report_json.h"

namespace quorvelctl {
namespace {

/// A longer one isn't searched for each of the names.
constexpr size_t kMaxSentenceBytes = 4096;

struct Names {
  std::map<std::string, std::string> byFrame;  ///< by the id of a stack frame
  /// By the old name. Modules may share a file name and so an old name; such a one has no new name ("").
  std::map<std::string, std::string> byOldName;

  void add(const std::string& oldName, const std::string& name) {
    const auto [known, isNew] = byOldName.try_emplace(oldName, name);
    if (!isNew && known->second != name) known->second.clear();
  }
};

/// Empty when nobody knows it.
std::string nameOf(const ReportFrame& frame, Symbols& symbols) {
  if (frame.module.empty()) return {};
  std::string name = symbols.nameOf(frame);
  if (name.empty() && frame.name != frame.place()) name = frame.name;  // somebody named it before
  return name;
}

Names nameFrames(const Json& frames, Symbols& symbols, NamedReport& result) {
  Names names;
  std::set<std::string> withoutFile;
  if (!frames.is_object()) return names;
  for (const auto& [id, entry] : frames.items()) {
    if (!entry.is_object() || textMember(entry, "category") == "kernel") continue;
    const ReportFrame frame = reportFrame(entry);
    ++result.frames;
    std::string name = nameOf(frame, symbols);
    if (!frame.module.empty() && !symbols.hasFileOf(frame)) withoutFile.insert(frame.module);
    if (name.empty()) continue;
    ++result.named;
    names.add(frame.name, name);
    names.byFrame.emplace(id, std::move(name));
  }
  result.withoutFile.assign(withoutFile.begin(), withoutFile.end());
  return names;
}

/// The verdict may say in which function the thread was.
std::string renamedIn(std::string sentence, const Names& names) {
  if (sentence.size() > kMaxSentenceBytes) return sentence;
  for (const auto& [from, to] : names.byOldName) {
    const size_t at = sentence.find(" " + from);
    const size_t end = at + 1 + from.size();
    if (to.empty() || at == std::string::npos) continue;
    if (end < sentence.size() && std::isalnum(static_cast<unsigned char>(sentence[end])))
      continue;  // a longer one
    sentence.replace(at + 1, from.size(), to);
  }
  return sentence;
}

/// The new name of a function; the old one where there is none.
const std::string& renamed(const std::string& function, const Names& names) {
  const auto name = names.byOldName.find(function);
  return name == names.byOldName.end() || name->second.empty() ? function : name->second;
}

/// Writes JSON as it is read, but for the names. Numbers and the order of members stay as they are.
class Rewriter final : public nlohmann::json_sax<Json> {
 public:
  explicit Rewriter(const Names& names) : names_(names) {}

  std::string text;

  bool null() override { return put("null"); }
  bool boolean(bool value) override { return put(value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override { return put(std::to_string(value)); }
  bool number_unsigned(number_unsigned_t value) override { return put(std::to_string(value)); }
  bool number_float(number_float_t, const string_t& digits) override { return put(digits); }
  bool binary(binary_t&) override { return false; }  // not in texts
  bool string(string_t& value) override;
  bool key(string_t& name) override;
  bool start_object(size_t) override { return begin('{'); }
  bool start_array(size_t) override { return begin('['); }
  bool end_object() override;
  bool end_array() override { return end(']'); }
  bool parse_error(size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

 private:
  bool put(std::string_view json) {
    if (!path_.empty() && text.back() != '{' && text.back() != '[' && text.back() != ':') text += ',';
    text += json;
    return true;
  }
  bool begin(char bracket) {
    put(std::string_view(&bracket, 1));
    path_.emplace_back();
    return true;
  }
  bool end(char bracket) {
    text += bracket;
    path_.pop_back();
    return true;
  }
  /// A symbol table may hold any bytes.
  static std::string quoted(const std::string& value) {
    return Json(value).dump(-1, ' ', false, Json::error_handler_t::replace);
  }

  /// Whether the value that comes is below the member `top`, in the `depth`th object or array.
  bool isIn(const char* top, size_t depth) const { return path_.size() == depth && path_.front() == top; }

  const Names& names_;
  std::vector<std::string> path_;  // of each open object the last key, of an array ""
  size_t nameAt_ = 0;              // of the event that is being read, where its name is written; 0: not yet
  std::string name_;
  bool isUserFrame_ = false;
};

bool Rewriter::key(string_t& name) {
  put(quoted(name));
  text += ':';
  path_.back() = std::move(name);
  return true;
}

bool Rewriter::string(string_t& value) {
  const std::string member = path_.empty() ? "" : path_.back();
  if (isIn("stackFrames", 3) && member == "name") {
    const auto frame = names_.byFrame.find(path_[1]);
    return put(quoted(frame == names_.byFrame.end() ? value : frame->second));
  }
  if (path_.size() >= 3 && path_[0] == "metadata" && path_[1] == "verdict") {
    if (member == "sentence") return put(quoted(renamedIn(value, names_)));
    if (member == "function") return put(quoted(renamed(value, names_)));
  }
  if (path_.size() >= 3 && path_[0] == "metadata" && path_[1] == "launch" && member == "function")
    return put(quoted(renamed(value, names_)));
  put(quoted(value));
  if (!isIn("traceEvents", 3)) return true;
  if (member == "cat") isUserFrame_ = value == "user";
  if (member == "name") {
    name_ = value;
    nameAt_ = text.size() - quoted(value).size();
  }
  return true;
}

/// Of an event the category may come after the name, so the name is put right at the end.
bool Rewriter::end_object() {
  if (isIn("traceEvents", 3)) {
    if (isUserFrame_ && nameAt_ != 0) {
      text.replace(nameAt_, quoted(name_).size(), quoted(renamed(name_, names_)));
    }
    nameAt_ = 0;
    isUserFrame_ = false;
  }
  return end('}');
}

}  // namespace

std::optional<NamedReport> nameReport(std::string_view text, Symbols& symbols, std::string& error) {
  const auto report = parseReportJson(
      text, [](const Json&) {}, error);
  if (!report) return std::nullopt;
  if (!member(*report, "metadata").is_object()) {
    error = "it has no metadata";
    return std::nullopt;
  }
  NamedReport result;
  const Names names = nameFrames(member(*report, "stackFrames"), symbols, result);
  Rewriter rewriter(names);
  rewriter.text.reserve(text.size() + text.size() / 8);
  Json::sax_parse(text, &rewriter);
  result.text = std::move(rewriter.text);
  return result;
}

void nameFunctions(Report& report, Symbols& symbols) {
  Names names;
  std::map<std::tuple<std::string, std::string, uint64_t>, std::string> known;  // stacks share frames
  const auto nameAll = [&](std::vector<ReportFrame>& stack) {
    for (ReportFrame& frame : stack) {
      const auto [entry, isNew] = known.try_emplace({frame.module, frame.buildId, frame.offset});
      if (isNew) entry->second = nameOf(frame, symbols);
      if (entry->second.empty()) continue;
      names.add(frame.name, entry->second);
      frame.name = entry->second;
    }
  };
  for (ReportThread& thread : report.threads) nameAll(thread.userStack);
  for (ReportSampled::Place& place : report.sampled.places) nameAll(place.stack);
  if (report.launch) {
    for (ReportLaunch::Share& share : report.launch->path) share.function = renamed(share.function, names);
    for (ReportLaunch::Phase& phase : report.launch->phases) {
      if (phase.mostly) phase.mostly->function = renamed(phase.mostly->function, names);
    }
  }
  if (!report.verdict) return;
  report.verdict->sentence = renamedIn(report.verdict->sentence, names);
  report.verdict->function = renamed(report.verdict->function, names);
  for (ReportVerdict::Link& link : report.verdict->chain) link.function = renamed(link.function, names);
}

}  // namespace quorvelctl
