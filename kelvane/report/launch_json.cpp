#include "kelvane/report/launch_json.h"

#include <string_view>

#include "kelvane/report/verdict_json.h"

namespace kelvane {
namespace {

/// Into an open object.
void writeShare(JsonWriter& json, const PathShare& share) {
  writeNames(json, share.thread);
  json.member("threads", share.threads);
  json.member("doing", std::string_view(share.doing));
  json.memberMilliseconds("durationMs", share.ns);
  if (!share.function.empty()) json.member("function", std::string_view(share.function));
}

void writePhases(JsonWriter& json, const std::vector<LaunchPhase>& phases) {
  json.key("phases");
  json.beginArray();
  for (const LaunchPhase& phase : phases) {
    json.beginObject();
    json.member("from", std::string_view(phase.from));
    json.member("to", std::string_view(phase.to));
    if (phase.process.pid != 0) {
      json.member("pid", phase.process.pid);
      json.member("process", std::string_view(phase.process.process));
    }
    json.memberMicroseconds("ts", phase.fromNs);
    json.memberMilliseconds("durationMs", phase.toNs - phase.fromNs);
    if (phase.mostly) {
      json.key("mostly");
      json.beginObject();
      writeShare(json, *phase.mostly);
      json.endObject();
    }
    json.endObject();
  }
  json.endArray();
}

void writePath(JsonWriter& json, const std::vector<PathShare>& path) {
  json.key("path");
  json.beginArray();
  for (const PathShare& share : path) {
    json.beginObject();
    writeShare(json, share);
    json.endObject();
  }
  json.endArray();
}

void writeProcesses(JsonWriter& json, const Launch& launch) {
  json.member("processCount", launch.processCount);
  json.key("processes");
  json.beginArray();
  for (const LaunchMember& process : launch.processes) {
    json.beginObject();
    json.member("pid", process.pid);
    json.member("name", std::string_view(process.name));
    if (process.parent != 0) json.member("parent", process.parent);
    json.member("threads", process.threads);
    if (process.madeNs != 0) json.memberMicroseconds("madeTs", process.madeNs);
    if (process.endedNs != 0) json.memberMicroseconds("endedTs", process.endedNs);
    json.memberMilliseconds("runningMs", process.runningNs);
    json.endObject();
  }
  json.endArray();
}

}  // namespace

void writeLaunch(JsonWriter& json, const Launch& launch) {
  json.key("launch");
  json.beginObject();
  json.member("pid", launch.look.pid);
  if (!launch.name.empty()) json.member("name", std::string_view(launch.name));
  if (launch.look.isThere()) {
    json.memberMilliseconds("lifeCpuMs", launch.look.ranNs);
    json.memberMilliseconds("lifeChildrenCpuMs", launch.look.childrenRanNs);
  }
  json.member("recorded", launch.isRecorded);
  writePhases(json, launch.phases);
  if (launch.isRecorded || !launch.path.empty()) {
    json.key("followed");
    json.beginObject();
    json.member("tid", launch.followed.hungThread);
    json.member("name", std::string_view(launch.followed.threads.front().facts.comm));
    json.member("pid", launch.followed.pid);
    json.member("process", std::string_view(launch.followed.comm));
    json.endObject();
    writePath(json, launch.path);
  }
  if (launch.isRecorded) writeProcesses(json, launch);
  json.endObject();
}

}  // namespace kelvane
