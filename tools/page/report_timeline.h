#pragma once

#include <string>
#include <vector>

#include "tools/report/report.h"

namespace quorvelctl {

/// What of a report's trace is drawn: who had each CPU, the hung thread's states, marks, the hang.
///
/// Bounded whatever the trace holds: where it has more than can be told apart, neighbours are one item.
/// Times are microseconds from the begin of the hang, or of the trace if there was none.
struct Timeline {
  /// One or more neighbouring events of a track.
  struct Item {
    double startUs = 0;
    double durationUs = 0;  ///< from the begin of the first to the end of the last
    double busyUs = 0;      ///< of that, how much they take
    uint32_t label = 0;     ///< of those, the one with the most time
    uint32_t count = 1;
  };
  struct Track {
    std::string name;
    std::string kind;  ///< "cpu", "state", "wakeup" or "signpost"
    std::vector<Item> items;
  };
  struct Label {
    std::string text;
    int64_t tid = 0;    ///< 0: not of a CPU
    std::string owner;  ///< of a thread: "hung", "own" (of the same process) or "other"
    double totalUs = 0;
  };

  double fromUs = 0;
  double toUs = 0;
  double hangUs = 0;    ///< how long the hang lasted
  double lookedUs = 0;  ///< when the stacks were copied; NaN: not said
  std::vector<Label> labels;
  std::vector<Track> tracks;
  size_t events = 0;          ///< that the items stand for
  size_t hiddenCpus = 0;      ///< that had events and no track
  bool statesOfLook = false;  ///< the states are what one look found, drawn over the whole hang
};

/// Empty of tracks when the report's trace has nothing to draw.
Timeline timelineOf(const Report& report);

/// As the page's script reads it.
std::string timelineJson(const Timeline& timeline);

}  // namespace quorvelctl
