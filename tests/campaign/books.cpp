#include "tests/campaign/books.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "base/report_folder.h"

namespace quorveld::campaign {

namespace {

constexpr const char* kFenceHang = "Fence-hang";
constexpr size_t kRecentLines = 40;
constexpr uint64_t kMinuteTicks = 60ull * 24'000'000;

/// Whether `text` is read to the end of `format` (a last "%n" where that is a literal).
[[gnu::format(scanf, 3, 4)]] bool reads(const std::string& text, int fields, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int found = vsscanf(text.c_str(), format, arguments);
  va_end(arguments);
  return found == fields;
}

bool has(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

Books::Totals& Books::Totals::operator+=(const Totals& other) {
  hangs += other.hangs;
  reports += other.reports;
  refusals += other.refusals;
  failures += other.failures;
  launches += other.launches;
  timeouts += other.timeouts;
  memoryReports += other.memoryReports;
  daemons += other.daemons;
  return *this;
}

void Books::daemonStarts() {
  daemonEnds();
  shortHangs_ = longHangs_ = slowLaunches_ = {};
  processCredits_.clear();
  appCredits_.reset();
  creditsPerApp_ = 5;
  timeoutMs_ = 5000;
  ++totals_.daemons;
}

/// What was under way has ended with it.
void Books::daemonEnds() {
  watched_.clear();
  inFlight_.clear();
  tracing_ = traces_ = hangIsOpen_ = fencePending_ = false;
  slowPending_ = midnights_ = 0;
}

void Books::settle() {
  for (const sim::LogLine& line : world_.logs.lines) {
    if (recent_.size() == kRecentLines) recent_.pop_front();
    recent_.push_back(line.text);
    read(line.text);
  }
  hangIsOver();
  launchIsAccepted();
  require(!attempting_, "a report was begun and nothing became of it");
  require(owed_ == Debt::none, "a report was saved and no credit was spent for it");
  require(slowPending_ == 0 || !world_.running(), "a slow launch got neither a report nor a refusal");
  for (const auto& [key, begin] : inFlight_) {
    require(world_.now() - begin <= kMinuteTicks, "a launch is in flight for more than a minute: " + key);
  }
  compareFiles();
  world_.logs.clear();
}

/// Most lines say nothing that is kept here, so the first look is a cheap one.
void Books::read(const std::string& text) {
  if (text.starts_with("refreshPreferences: ") || text.starts_with("Status: ")) return readState(text);
  if (text.starts_with("QVActivationStats: ")) return readLaunch(text);
  if (!readHang(text) && !readRefusal(text) && !readAttempt(text) && !readPayment(text)) readState(text);
}

// --- hangs and their reports ---

bool Books::readHang(const std::string& text) {
  int name = 0;
  if (!has(text, ": Hang detected ") || !reads(text, 0, "%*[^:]: Hang detected %*fs (%n", &name))
    return false;
  hangIsOver();
  ++totals_.hangs;
  const std::string hangName =
      text.substr(static_cast<size_t>(name), text.size() - 1 - static_cast<size_t>(name));
  isFenceHang_ = hangName == kFenceHang;
  if (isFenceHang_) {
    ++fenceHangs_;
    hangIsOpen_ = true;
    return true;
  }
  ++hangsOfDay_;
  int id = 0;
  require(reads(hangName, 1, "%d#", &id) && operations_.contains(id), "a hang that nobody had: " + hangName);
  Operation& operation = operations_[id];
  require(!operation.recorded, "a second hang of one start");
  operation.recorded = true;
  hangIsOpen_ = operation.save;
  return true;
}

/// Another begins, or time goes on: what was to become of the last one has been said. A fence hang's report
/// is made later, and nothing is said of that; fence hangs in this campaign want reports where reports are
/// on.
void Books::hangIsOver() {
  if (!hangIsOpen_) return;
  hangIsOpen_ = false;
  require(isFenceHang_, "a hang that wants a report got neither that nor a refusal");
  if (!traces_) return;
  require(!fencePending_, "two reports of fence hangs are pending");
  fencePending_ = true;
}

void Books::refused() {
  require(hangIsOpen_, "a refusal that belongs to no hang");
  hangIsOpen_ = false;
  ++totals_.refusals;
}

bool Books::readRefusal(const std::string& text) {
  char name[128];
  if (text.ends_with(": Quorvel kelvane support is disabled, not saving a report!")) {
    refused();
    require(!traces_, "reports are on");
  } else if (has(text, ": Tried to save kelvane, but kelvane support is not present")) {
    refused();
  } else if (has(text, "Fence-hang, but waiting for FenceHangCapture")) {
    refused();
    require(fencePending_, "no report of a fence hang is pending");
  } else if (has(text, " is out of credits. Not saving a report!") && reads(text, 1, "%127s", name)) {
    if (has(name, ".")) {
      require(slowPending_-- > 0, "a refusal that belongs to no launch");
      require(appCredits_ && appCredits_->contains(name) && (*appCredits_)[name] == 0, "it has credits");
      return true;
    }
    refused();
    require(processCredits_.contains(name) && processCredits_[name] == 0, "it has credits");
    ++missedByProcess_[name];
  } else if (has(text, "Device is out of Daily Short Log credits") ||
             has(text, "Device is out of Daily Long Log credits")) {
    refused();
    require((has(text, "Short") ? shortHangs_ : longHangs_).credits < 1, "there are credits");
    ++missedByDevice_;
  } else if (has(text, "Device is out of Daily Log credits")) {
    require(slowPending_-- > 0, "a refusal that belongs to no launch");
    require(slowLaunches_.credits < 1, "there are credits");
  } else if (has(text, "Tried to save kelvane for ") ||
             (has(text, " activation!") && has(text, "support is disabled"))) {
    require(slowPending_-- > 0, "a refusal that belongs to no launch");
  } else {
    return false;
  }
  return true;
}

bool Books::readAttempt(const std::string& text) {
  if (has(text, "Attempting to save kelvane at ")) {
    require(owed_ == Debt::none, "a report was saved and no credit was spent for it");
    const std::string name = text.substr(text.rfind('/') + 1);
    launchAttempt_ = name.starts_with("Launch-");
    fenceAttempt_ = name.starts_with(std::string(kFenceHang) + "-");
    if (launchAttempt_) {
      require(slowPending_-- > 0, "a report of a launch that nobody wants");
    } else if (fenceAttempt_) {
      require(fencePending_, "a report of a fence hang that nobody wants");
      fencePending_ = false;
    } else {
      require(hangIsOpen_, "a report that nobody wants");
      hangIsOpen_ = false;
    }
    attempting_ = true;
    ++requests_;
    return true;
  }
  const bool notBegun = has(text, ": Could not create file - won't take a kelvane") ||
                        has(text, ": Unable to serialize Info Dict into JSON") ||
                        has(text, ": Unable to create UTF8 string from JSON");
  if (notBegun || has(text, ": Unable to save kelvane data to file.")) {
    require(attempting_, "a failure of no report");
    attempting_ = false;
    ++totals_.failures;
    if (notBegun) --requests_;
  } else if (has(text, ": Moving kelvane to spool: ")) {
    require(attempting_, "nothing was saved");
    attempting_ = false;
    ++totals_.reports;
    ++filed_;
    owed_ = launchAttempt_ ? Debt::launch : Debt::hang;
  } else if (has(text, ": Unable to move kelvane to final path")) {
    --filed_;
    ++totals_.failures;
  } else {
    return false;
  }
  return true;
}

// --- credits ---

/// A credit is spent, or a new limit is said of the same credits: what was used stays used.
void Books::take(Allowance& allowance, long before, long after) {
  require(before == allowance.credits, "the credits were others");
  allowance.credits = after;
  if (std::exchange(allowance.limitFollows, false)) {
    require(after == allowance.maximum - allowance.reports, "a limit's credits don't fit");
    return;
  }
  require(after == before - 1, "it isn't one credit that is spent");
  // The fences' was judged when their hang was found, a second before.
  require(before >= 1 || fenceAttempt_, "credit below zero");
  ++allowance.reports;
}

void Books::reset(Allowance& allowance, long before, long after) {
  require(before == allowance.credits && after == allowance.maximum, "the credits were others");
  require(allowance.maximum - allowance.credits == allowance.reports, "the count isn't that of the reports");
  allowance = {.maximum = after, .credits = after};
}

bool Books::readPayment(const std::string& text) {
  if (!has(text, "redits") && !has(text, " Limit: ")) return false;
  char what[128];
  long before = 0, after = 0;
  const auto allowance = [&]() -> Allowance& {
    if (has(text, "Short Log")) return shortHangs_;
    return has(text, "Long Log") ? longHangs_ : slowLaunches_;
  };
  if (has(text, "Long Hang does not deduct per-app credits")) {
    require(owed_ == Debt::hang, "a credit is spent for nothing");
  } else if (has(text, "Per App Activation Kelvane Limit")) {
    reads(text, 2, "Max Daily Per App Activation Kelvane Limit: %ld -> %ld", &before, &after);
    creditsPerApp_ = static_cast<int>(std::max(after, 0L));
  } else if (text.starts_with("Max Daily ") && reads(text, 2, "%*[^:]: %ld -> %ld", &before, &after)) {
    require(before == allowance().maximum, "the limit was another");
    allowance().maximum = after;
    allowance().limitFollows = true;
  } else if (has(text, "Hang Short Logs Daily Credits reset") ||
             has(text, "Hang Long Logs Daily Credits reset") ||
             has(text, "Launch Logs Daily Credits reset")) {
    reads(text, 2, "%*[^0-9-]%ld to %ld", &before, &after);
    Allowance& daily = has(text, "Launch") ? slowLaunches_ : has(text, "Short") ? shortHangs_ : longHangs_;
    const int64_t reports = daily.reports;
    reset(daily, before, after);
    if (&daily == &slowLaunches_) {
      appCredits_.emplace();
      return true;
    }
    const std::string key = &daily == &shortHangs_ ? "Short" : "Long";
    require(world_.analytics.scalars["com.corvix.quorvel.QV" + key + "LogsGeneratedAtDailyReset"] == reports,
            "the counter isn't that of the reports");
  } else if (reads(text, 2, "Daily Launch Log credits: %ld -> %ld", &before, &after)) {
    require(owed_ == Debt::launch, "a credit is spent for nothing");
    owed_ = Debt::launchOfApp;
    take(slowLaunches_, before, after);
  } else if (text.starts_with("Daily ") && reads(text, 2, "%*[^:]: %ld -> %ld", &before, &after)) {
    if (!allowance().limitFollows) {
      require(owed_ == Debt::hang, "a credit is spent for nothing");
      owed_ = Debt::none;
    }
    take(allowance(), before, after);
  } else if (reads(text, 3, "%127s Launch Log credits: %ld -> %ld", what, &before, &after)) {
    require(owed_ == Debt::launchOfApp, "a credit is spent for nothing");
    owed_ = Debt::none;
    const bool known = appCredits_ && appCredits_->contains(what);
    require(before == (known ? (*appCredits_)[what] : creditsPerApp_), "the credits were others");
    require(after == std::max(before - 1, 0L), "it isn't one credit that is spent");
    if (appCredits_ && before > 0) (*appCredits_)[what] = static_cast<int>(after);
  } else if (reads(text, 3, "%127s Log credits: %ld -> %ld", what, &before, &after)) {
    require(owed_ == Debt::hang, "a credit is spent for nothing");
    require(before == (processCredits_.contains(what) ? processCredits_[what] : 4),
            "the credits were others");
    require(after == before - 1 || (fenceAttempt_ && before == 0 && after == 0), "credit below zero");
    processCredits_[what] = static_cast<int>(after);
  } else if (reads(text, 2, "%127s credits increased to: %ld", what, &after)) {
    require(processCredits_.contains(what) && after == processCredits_[what] + 1, "the credits were others");
    if (after == 4) {
      processCredits_.erase(what);
    } else {
      processCredits_[what] = static_cast<int>(after);
    }
  } else {
    return false;
  }
  return true;
}

// --- launches ---

void Books::launchIsAccepted() {
  if (!beginning_) return;
  require(!inFlight_.contains(*beginning_), "a second begin of one launch was taken: " + *beginning_);
  inFlight_.emplace(*beginning_, world_.now());
  beginning_.reset();
}

void Books::readLaunch(const std::string& text) {
  char bundle[128];
  int pid = 0;
  const auto key = [&] { return std::to_string(pid) + ":" + bundle; };
  if (has(text, "] activation begin (") && reads(text, 2, "QVActivationStats: %127[^[][%d]", bundle, &pid)) {
    launchIsAccepted();
    beginning_ = key();
    ++totals_.launches;
  } else if (has(text, "An entry already exists for ")) {
    require(beginning_ && inFlight_.contains(*beginning_), "there is none");
    beginning_.reset();
  } else if (has(text, "Too many activations at once")) {
    beginning_.reset();
  } else if (reads(text, 2, "QVActivationStats: Activation Complete:Activationid:%*d BundleID:%127s PID:%d",
                   bundle, &pid)) {
    require(inFlight_.erase(key()) == 1, "a launch ended that wasn't in flight");
  } else if (
      reads(text, 2,
            "QVActivationStats: beginActivationTrackingForPID: Did not find an end call entry for %d:%127s",
            &pid, bundle)) {
    require(inFlight_.erase(key()) == 1, "a launch timed out that wasn't in flight");
    ++totals_.timeouts;
  } else if (
      reads(text, 2,
            "QVActivationStats: endActivationTrackingForPID: Did not find an existing entry for %d:%127s",
            &pid, bundle)) {
    require(!inFlight_.contains(key()), "it is in flight");
  } else if (has(text, "will try to grab slow launch kelvane")) {
    ++slowPending_;
  } else if (has(text, "QVActivationStats: Sending activation for ")) {
    ++handedOver_;
  } else if (has(text, ": Setting Timer to fire at ")) {
    ++midnights_;
  } else if (has(text, ": Timer Fired at ")) {
    --midnights_;
  }
  require(midnights_ == 0 || midnights_ == 1, "there isn't one timer for the next midnight");
}

void Books::readState(const std::string& text) {
  int number = 0;
  double old = 0;
  if (reads(text, 1, "New proc: %*[^(](%d)", &number)) {
    require(watched_.insert(number).second, "a process is watched twice");
  } else if (reads(text, 1, "Client disconnected: %d", &number)) {
    watched_.erase(number);
  } else if (has(text, "refreshPreferences: Hang Tracing ")) {
    tracing_ = has(text, "Enabled");
    if (!tracing_) watched_.clear();
  } else if (reads(text, 1, "refreshPreferences: QuorvelEnableKelvane = %d", &number)) {
    traces_ = number != 0;
  } else if (has(text, "refreshPreferences: setMaxActivationKelvanesPerApp = ")) {
    appCredits_.emplace();
  } else if (reads(text, 2, "Hang Timeout Duration: %lf -> %lf", &old, &timeoutMs_)) {
    return;
  } else if (text.starts_with("Status: ")) {
    compareStatus(text);
  }
}

// --- what was left ---

void Books::compareFiles() {
  auto& requests = world_.traceLibraries.requests;
  require(static_cast<int>(requests.size()) == requests_, "the trace library was called for no report");
  require(world_.files.openFiles() == 0, "a file was left open");
  require(static_cast<int>(world_.powerLog.events.size()) == handedOver_,
          "launches reported aren't those said");
  for (const std::string& change : world_.files.history()) {
    if (!change.starts_with("move ")) continue;
    const std::string path = change.substr(change.rfind(' ') + 1);
    const std::string content = world_.files.content(path).value_or("");
    if (!path.ends_with(".ips")) {
      --filed_;
      require(std::any_of(requests.begin(), requests.end(),
                          [&](const auto& request) {
                            return content == world_.traceLibraries.report + request.reason;
                          }),
              "half a report: " + path + "\n" + content);
    } else {
      ++totals_.memoryReports;
      require(content.starts_with("{\"bug_type\"") && content.ends_with("\n}\n"), "half a report: " + path);
    }
  }
  require(filed_ == 0, "reports in the spool aren't those said");

  // Only what was written can have been left.
  if (leftovers_ || !world_.files.history().empty()) compareLeftovers();

  requests.clear();
  world_.powerLog.events.clear();
  world_.files.clearHistory();
  requests_ = handedOver_ = 0;
}

void Books::compareLeftovers() {
  const int removalsFailed = world_.faults.delivered(sim::Op::remove);
  const bool removed = std::exchange(removalsFailed_, removalsFailed) == removalsFailed;
  const auto names = world_.files.list(kCacheDirectory);
  const bool left = !world_.temporaryFiles().empty() ||
                    std::any_of(names.begin(), names.end(), [](const std::string& name) {
                      return name.starts_with(kMemoryReports.unfinished.prefix);
                    });
  require(!left || leftovers_ || !removed, "a temporary file was left behind");
  leftovers_ = left;
}

void Books::compareStatus(const std::string& text) {
  long watched = 0, credits[3], maximum[3];
  if (has(text, "watched processes") && reads(text, 1, "Status: %ld", &watched)) {
    require(watched == static_cast<long>(watched_.size()),
            "not " + std::to_string(watched_.size()) + " processes are watched");
  } else if (reads(text, 6, "Status: reports left today: %ld of %ld short, %ld of %ld long, %ld of %ld slow",
                   &credits[0], &maximum[0], &credits[1], &maximum[1], &credits[2], &maximum[2])) {
    int i = 0;
    for (const Allowance* allowance : {&shortHangs_, &longHangs_, &slowLaunches_}) {
      require(credits[i] == allowance->credits && maximum[i] == allowance->maximum, "the credits are others");
      require(allowance->maximum - allowance->credits == allowance->reports,
              "the count isn't that of the reports");
      ++i;
    }
  }
}

void Books::closeDay() {
  settle();
  if (world_.running()) {
    world_.queues.requestStatus();
    world_.settle();
    settle();
  }
  auto& analytics = world_.analytics;
  int64_t missed = 0, pushed = 0;
  const std::string byProcess = "com.corvix.quorvel.QVLogsMissedDueToProcessLimit.";
  for (const auto& [name, count] : missedByProcess_) {
    require(analytics.added[byProcess + name] == count, "refusals of a process aren't those said");
    missed += count;
  }
  require(analytics.added[byProcess + "Total"] == missed, "refusals aren't those said");
  require(analytics.added["com.corvix.quorvel.QVLogsMissedDueToGlobalLimit.Total"] == missedByDevice_,
          "refusals aren't those said");
  require(analytics.added["com.corvix.quorvel.QVLogsFenceHang.PreKelvane"] == fenceHangs_,
          "fence hangs aren't those said");
  for (const auto& [key, values] : analytics.distributions) {
    const bool isOfHangs =
        !key.starts_with("com.corvix.quorvel.QVLaunch.") && key != "com.corvix.quorvel.QVCapture";
    if (isOfHangs) pushed += static_cast<int64_t>(values.size());
  }
  require(pushed == hangsOfDay_, "hangs counted aren't those said");
  analytics.distributions.clear();
  hangsOfDay_ = 0;
}

}  // namespace quorveld::campaign
