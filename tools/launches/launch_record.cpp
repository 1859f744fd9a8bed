#include "tools/launches/launch_record.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "client/include/quorvel.h"
#include "tools/launches/activation.h"
#include "tools/preferences/preference_file.h"
#include "tools/preferences/preference_keys.h"

namespace quorvelctl {
namespace {

using std::chrono::steady_clock;

/// The pauses between looks grow with the time waited for, of which they add no more than this part: most
/// records are there within a millisecond.
constexpr int kShareOfWait = 4;
constexpr std::chrono::microseconds kShortestPause(50);
constexpr std::chrono::milliseconds kLongestPause(10);

/// What the boolean preference `key` is set to, under the name `storedAs`, in the list at `path`.
std::optional<bool> stored(const std::string& path, const std::string& key, const std::string& storedAs) {
  std::string error;
  const std::optional<PreferenceFile> file = PreferenceFile::load(path, error);
  const std::optional<StoredValue> value = file ? file->get(storedAs) : std::nullopt;
  if (!value) return std::nullopt;
  if (value->element == "true" || value->element == "false") return value->element == "true";
  const auto meant = typedValue(*findPreferenceKey(key), value->text, error);
  return meant ? std::optional(meant->element == "true") : std::nullopt;
}

}  // namespace

std::string whyNoneIsRecorded(const Context& context) {
  const std::string preferences = context.path("/var/mobile/Library/Preferences/");
  const std::string managed = context.path("/Library/Managed Preferences/mobile/.GlobalPreferences.plist");
  const std::string logging = "QuorvelEnableAppActivationLogging";
  const std::string slow = "QuorvelSlowActKelvanesEnabled";  // instead of them
  if (!stored(preferences + "com.corvix.quorvel.plist", logging, logging).value_or(false))
    return logging + " is not set";
  const auto slowOwn = stored(preferences + "com.corvix.telvo.plist", slow, slow);
  const auto slowManaged = stored(managed, slow, "QVProfile." + slow);
  if (!slowManaged.value_or(slowOwn.value_or(false))) return {};
  return "with " + slow + " those that are slow leave a report instead";
}

AppendedLines::AppendedLines(std::string path) : path_(std::move(path)) {
  open();
  struct stat status {};
  if (fstat(file_.get(), &status) == 0) offset_ = status.st_size;
}

void AppendedLines::open() {
  file_ = Descriptor(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  offset_ = 0;
}

std::vector<std::string> AppendedLines::next() {
  std::vector<std::string> lines;
  struct stat named {};
  struct stat opened {};
  // Before the file is read: one that has lost its name grows no more.
  const bool isReplaced =
      stat(path_.c_str(), &named) == 0 && (fstat(file_.get(), &opened) != 0 || named.st_ino != opened.st_ino);
  addTo(lines);
  if (isReplaced) {
    open();
    addTo(lines);
  }
  return lines;
}

void AppendedLines::addTo(std::vector<std::string>& lines) {
  std::string text;
  char part[8192];
  for (ssize_t got;
       (got = pread(file_.get(), part, sizeof part, offset_ + static_cast<off_t>(text.size()))) > 0;)
    text.append(part, static_cast<size_t>(got));
  size_t begin = 0;
  for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
    lines.push_back(text.substr(begin, end - begin));
  offset_ += static_cast<off_t>(begin);
}

LaunchRecord::LaunchRecord(const Context& context)
    : context_(context), records_(context.path(kActivationLog)), leftOut_(context.path(kLeftOutLog)) {}

LaunchRecord::Outcome LaunchRecord::look(int32_t pid, uint64_t startMs, uint64_t endMs) {
  const auto isIt = [&](const std::string& line) {
    const std::optional<uint64_t> identifier = activationIdentifierOf(line);
    return identifier &&
           (isActivationOf(*identifier, pid, startMs) || isActivationOf(*identifier, pid, endMs));
  };
  for (const std::string& line : records_.next()) {
    if (isIt(line)) return Outcome::recorded;
  }
  for (const std::string& line : leftOut_.next()) {
    if (!isIt(line)) continue;
    const nlohmann::json note = nlohmann::json::parse(line, nullptr, false);
    reason_ = note.is_object() ? note.value("Reason", "") : "";
    return Outcome::leftOut;
  }
  return Outcome::noWord;
}

/// Looks every so often, and does not watch the folder: to close an inotify descriptor takes the kernel
/// milliseconds, in which it waits for everybody else who is in the middle of an event.
LaunchRecord::Outcome LaunchRecord::await(int32_t pid, uint64_t startMs, uint64_t endMs,
                                          std::chrono::milliseconds limit) {
  prctl(PR_SET_TIMERSLACK, 1UL);  // or each pause would be 50 µs longer
  const auto begin = steady_clock::now();
  bool isMade = false;
  for (;;) {
    const Outcome outcome = look(pid, startMs, endMs);
    if (outcome == Outcome::noWord && !isMade) {  // read while the daemon is at work
      isMade = whyNoneIsRecorded(context_).empty();
      if (!isMade) return Outcome::noneIsMade;
      continue;
    }
    const auto waited = steady_clock::now() - begin;
    if (outcome != Outcome::noWord || waited >= limit) return outcome;
    const auto pause =
        std::clamp<steady_clock::duration>(waited / kShareOfWait, kShortestPause, kLongestPause);
    const timespec time{0, std::chrono::nanoseconds(pause).count()};
    pollfd daemon{qv_fd(), POLLIN, 0};
    if (ppoll(&daemon, 1, &time, nullptr) > 0 && qv_process() < 0)
      return look(pid, startMs, endMs);  // it is gone
  }
}

}  // namespace quorvelctl
