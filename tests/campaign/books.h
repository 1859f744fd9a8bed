#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

#include "tests/sim/world.h"

namespace quorveld::campaign {

/// Something that must hold doesn't.
struct Violation : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What the daemon owes and what it has paid, worked out from what can be seen of it.
///
/// The daemon's log is read line by line, in order: each line is an entry, and one that contradicts those
/// before it is a violation. Files, requests to the trace library and counters are then held against the
/// entries, and at the end of a day the daemon's own account of itself is. Nothing of the daemon's state is
/// looked at, and none of its decisions is taken anew.
class Books {
 public:
  explicit Books(sim::World& world) : world_(world) {}

  /// A daemon begins (full credits, nothing watched) or has ended.
  void daemonStarts();
  void daemonEnds();

  /// Some application noted or will report an operation under the name "ID#…": at most one hang of it may
  /// be found, and `save` says whether that one is to have a report.
  void expect(int id, bool save) { operations_[id] = {.save = save}; }
  bool recorded(int id) const { return operations_.at(id).recorded; }
  void forget(int id) { operations_.erase(id); }
  void stoppedWatching(int32_t pid) { watched_.erase(pid); }

  /// Reads what was logged since the last call, and compares what else was left.
  void settle();
  /// The same, with all that is counted over a day and the daemon's account of itself.
  void closeDay();

  bool tracing() const { return tracing_; }
  bool watches(int32_t pid) const { return watched_.contains(pid); }
  double timeoutMs() const { return timeoutMs_; }

  struct Totals {
    uint64_t hangs = 0, reports = 0, refusals = 0, failures = 0, launches = 0, timeouts = 0,
             memoryReports = 0, daemons = 0;

    Totals& operator+=(const Totals& other);
  };
  const Totals& totals() const { return totals_; }
  /// The daemon's last lines, oldest first.
  const std::deque<std::string>& recentLines() const { return recent_; }

 private:
  struct Allowance {
    int64_t maximum = 25, credits = 25, reports = 0;
    bool limitFollows = false;  ///< the next line about these credits is a new limit's
  };
  struct Operation {
    bool save = false, recorded = false;
  };
  enum class Debt { none, hang, launch, launchOfApp };

  void read(const std::string& text);
  bool readHang(const std::string& text);
  bool readRefusal(const std::string& text);
  bool readAttempt(const std::string& text);
  bool readPayment(const std::string& text);
  void readLaunch(const std::string& text);
  void readState(const std::string& text);
  void hangIsOver();
  void refused();
  void launchIsAccepted();
  void take(Allowance& allowance, long before, long after);
  void reset(Allowance& allowance, long before, long after);
  void compareFiles();
  void compareLeftovers();
  void compareStatus(const std::string& text);
  static void require(bool holds, const std::string& what) {
    if (!holds) throw Violation(what);
  }

  sim::World& world_;
  Totals totals_;
  std::deque<std::string> recent_;

  Allowance shortHangs_, longHangs_, slowLaunches_;
  std::map<std::string, int> processCredits_;
  std::optional<std::map<std::string, int>> appCredits_;
  int creditsPerApp_ = 5;
  std::set<int32_t> watched_;
  bool tracing_ = false, traces_ = false;
  double timeoutMs_ = 5000;

  std::map<int, Operation> operations_;
  bool hangIsOpen_ = false;    ///< one that wants a report, of which nothing further was heard
  bool isFenceHang_ = false;   ///< ... and it is the fences'
  bool fencePending_ = false;  ///< the fences' report is due within a second
  bool attempting_ = false, fenceAttempt_ = false, launchAttempt_ = false;
  int slowPending_ = 0;  ///< slow launches of whose reports nothing further was heard
  Debt owed_ = Debt::none;

  std::map<std::string, uint64_t> inFlight_;  ///< launches: the tick of their begin
  std::optional<std::string> beginning_;
  int midnights_ = 0;  ///< timers set less timers fired
  int requests_ = 0, filed_ = 0, handedOver_ = 0;
  int removalsFailed_ = 0;
  bool leftovers_ = false;

  // Over a day, or for ever where the counter is never reset.
  int64_t hangsOfDay_ = 0, fenceHangs_ = 0, missedByDevice_ = 0;
  std::map<std::string, int64_t> missedByProcess_;
};

}  // namespace quorveld::campaign
