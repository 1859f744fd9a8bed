#include "tools/report/report_launch.h"

namespace quorvelctl {
namespace {

ReportLaunch::Share shareOf(const Json& json) {
  return {verdictThreadOf(json), integerMember(json, "threads"), textMember(json, "doing"),
          numberMember(json, "durationMs"), textMember(json, "function")};
}

ReportLaunch::Phase phaseOf(const Json& json) {
  ReportLaunch::Phase phase{textMember(json, "from"),         textMember(json, "to"),
                            textMember(json, "process"),      integerMember(json, "pid"),
                            numberMember(json, "durationMs"), std::nullopt};
  if (member(json, "mostly").is_object()) phase.mostly = shareOf(member(json, "mostly"));
  return phase;
}

ReportLaunch::Process processOf(const Json& json) {
  return {integerMember(json, "pid"),     textMember(json, "name"),     integerMember(json, "parent"),
          integerMember(json, "threads"), numberMember(json, "madeTs"), numberMember(json, "endedTs"),
          numberMember(json, "runningMs")};
}

}  // namespace

std::optional<ReportLaunch> launchOf(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  ReportLaunch launch;
  launch.pid = integerMember(json, "pid");
  launch.name = textMember(json, "name");
  launch.followed = verdictThreadOf(member(json, "followed"));
  launch.phases = rowsOf<ReportLaunch::Phase>(member(json, "phases"), phaseOf);
  launch.path = rowsOf<ReportLaunch::Share>(member(json, "path"), shareOf);
  launch.processes = rowsOf<ReportLaunch::Process>(member(json, "processes"), processOf);
  launch.processCount = integerMember(json, "processCount");
  return launch;
}

}  // namespace quorvelctl
