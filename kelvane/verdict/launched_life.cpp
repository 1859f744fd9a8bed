#include "kelvane/verdict/launched_life.h"

#include <algorithm>
#include <string>

#include "kelvane/verdict/duration_text.h"
#include "kelvane/verdict/shares.h"

namespace kelvane {

void judgeByLife(const LaunchEvidence& evidence, bool isRecorded, Verdict& verdict) {
  const LaunchedLook& look = evidence.look;
  const uint64_t windowNs = evidence.toNs - evidence.fromNs;
  const auto isHalf = [&](uint64_t ns) { return makesUp(ns, kHalf, windowNs); };
  const std::string noRecord =
      isRecorded ? "Too little of the launch is recorded: " : "Nothing of the launch is recorded: ";
  const std::string whom = "the launched process (pid " + std::to_string(look.pid) + ")";
  if (!look.isThere()) {
    verdict.sentence = noRecord + whom + " had ended, and why it took so long can't be told.";
    return;
  }
  const std::string name = look.comm + " (pid " + std::to_string(look.pid) + ")";
  const ScheduleFigures life = look.around.schedule.value_or(ScheduleFigures{});
  // A resumed process is older, and the look may be long after the end.
  const uint64_t outsideNs = evidence.fromNs - std::min(evidence.fromNs, look.madeNs) + look.lookedAtNs -
                             std::min(look.lookedAtNs, evidence.toNs);
  const auto atLeast = [&](uint64_t ns) { return std::min(ns - std::min(ns, outsideNs), windowNs); };
  const uint64_t ranNs = look.ranNs + look.childrenRanNs;
  if (isHalf(atLeast(life.ranNs))) {
    verdict.cause = Cause::ownCpu;
    verdict.sentence = noRecord + name + " was busy itself, on the CPU for at least " +
                       ofDuration(atLeast(life.ranNs), windowNs) + ".";
  } else if (isHalf(atLeast(life.waitedNs))) {
    verdict.cause = Cause::starved;
    verdict.sentence = noRecord + name + " was ready to run and not given a CPU for at least " +
                       ofDuration(atLeast(life.waitedNs), windowNs) + ".";
  } else {
    verdict.sentence = noRecord + name + " has had CPUs for " + durationText(look.ranNs) +
                       " in its life, and its children that have ended for " +
                       durationText(look.childrenRanNs) + ". ";
    // What living children have had isn't known.
    const bool mayHaveComputed = isHalf(ranNs) || !look.descendants.empty();
    verdict.sentence += mayHaveComputed ? "Why the launch took " + durationText(windowNs) + " can't be told."
                                        : "So computing is not what took " + durationText(windowNs) +
                                              ": it waited, for what can't be told.";
  }
}

std::string othersOfLife(const LaunchEvidence& evidence) {
  const LaunchedLook& look = evidence.look;
  const uint64_t firstRanNs = look.around.schedule.value_or(ScheduleFigures{}).ranNs;
  const uint64_t othersRanNs = look.ranNs - std::min(look.ranNs, firstRanNs);
  if (!makesUp(othersRanNs + look.childrenRanNs, kHalf, evidence.toNs - evidence.fromNs)) return {};
  return " Its other threads have had CPUs for " + durationText(othersRanNs) +
         " in its life, and its children that have ended for " + durationText(look.childrenRanNs) + ".";
}

}  // namespace kelvane
