#include "kelvane/report/verdict_json.h"

namespace kelvane {
namespace {

/// Into an open object.
void writeNames(JsonWriter& json, const NamedThread& thread) {
  json.member("tid", thread.tid);
  json.member("name", std::string_view(thread.name));
  if (thread.pid == 0) return;
  json.member("pid", thread.pid);
  json.member("process", std::string_view(thread.process));
}

void writeEvidence(JsonWriter& json, const Verdict& verdict) {
  json.key("evidence");
  json.beginObject();
  json.member("source", verdict.fromRecorder ? "recorder" : "one look");
  json.memberMilliseconds("windowMs", verdict.windowNs);
  json.memberMilliseconds("coveredMs", verdict.coveredNs);
  json.member("eventsLost", verdict.eventsLost);
  json.endObject();
}

void writeSpent(JsonWriter& json, const TimeByState& spent) {
  json.key("spent");
  json.beginObject();
  for (size_t i = 0; i < spent.size(); i++) {
    std::string name = threadStateName(static_cast<ThreadState>(i));
    json.memberMilliseconds(name + "Ms", spent[i]);
  }
  json.endObject();
}

void writeWaits(JsonWriter& json, const std::vector<Wait>& waits) {
  json.key("waits");
  json.beginArray();
  for (const Wait& wait : waits) {
    json.beginObject();
    json.memberMicroseconds("ts", wait.fromNs);
    json.memberMilliseconds("durationMs", wait.toNs - wait.fromNs);
    json.member("state", threadStateName(wait.state));
    if (!wait.waitChannel.empty()) json.member("waitChannel", std::string_view(wait.waitChannel));
    if (const char* end = sleepEndName(wait.end)) json.member("endedBy", end);
    if (wait.wokenBy) {
      json.key("wokenBy");
      json.beginObject();
      writeNames(json, *wait.wokenBy);
      json.endObject();
    }
    json.endObject();
  }
  json.endArray();
}

void writePhases(JsonWriter& json, const std::vector<Phase>& phases) {
  json.key("phases");
  json.beginArray();
  for (const Phase& phase : phases) {
    json.beginObject();
    json.member("cause", causeName(phase.cause));
    if (phase.state != ThreadState::unknown) json.member("state", threadStateName(phase.state));
    json.memberMilliseconds("durationMs", phase.ns);
    json.endObject();
  }
  json.endArray();
}

void writeWakers(JsonWriter& json, const std::vector<Waker>& wakers) {
  json.key("wakers");
  json.beginArray();
  for (const Waker& waker : wakers) {
    json.beginObject();
    if (const char* end = sleepEndName(waker.end)) json.member("endedBy", end);
    if (waker.thread) writeNames(json, *waker.thread);
    json.member("sleeps", waker.sleeps);
    json.memberMilliseconds("sleptMs", waker.sleptNs);
    json.endObject();
  }
  json.endArray();
}

void writeBusiest(JsonWriter& json, const std::vector<BusyThread>& busiest) {
  json.key("busiest");
  json.beginArray();
  for (const BusyThread& busy : busiest) {
    json.beginObject();
    writeNames(json, busy.thread);
    json.memberMilliseconds("runningMs", busy.runningNs);
    json.endObject();
  }
  json.endArray();
}

void writeDisk(JsonWriter& json, const DiskActivity& disk) {
  json.key("disk");
  json.beginObject();
  json.member("requests", disk.requests);
  json.member("readBytes", disk.readBytes);
  json.member("writtenBytes", disk.writtenBytes);
  json.memberMilliseconds("busyMs", disk.busyNs);
  json.memberMilliseconds("slowestMs", disk.slowestNs);
  json.endObject();
}

void writePressureLine(JsonWriter& json, const char* name, const std::optional<PressureLine>& line) {
  if (!line) return;
  json.key(name);
  json.beginObject();
  json.memberPercent("some10", line->some10);
  if (line->full10) json.memberPercent("full10", *line->full10);
  json.endObject();
}

}  // namespace

void writeVerdict(JsonWriter& json, const Verdict& verdict) {
  json.key("verdict");
  json.beginObject();
  json.member("cause", causeName(verdict.cause));
  json.member("sentence", std::string_view(verdict.sentence));
  writeEvidence(json, verdict);
  if (verdict.spent) writeSpent(json, *verdict.spent);
  writePhases(json, verdict.phases);
  writeWaits(json, verdict.waits);
  writeWakers(json, verdict.wakers);
  if (verdict.lockOwner) {
    json.key("lock");
    json.beginObject();
    json.member("ownerTid", verdict.lockOwner->tid);
    json.member("ownerName", std::string_view(verdict.lockOwner->name));
    json.endObject();
  }
  if (verdict.peer) {
    json.key("peer");
    json.beginObject();
    json.member("pid", verdict.peer->pid);
    json.member("process", std::string_view(verdict.peer->process));
    json.member("through", std::string_view(verdict.peer->through));
    json.endObject();
  }
  writeBusiest(json, verdict.busiest);
  if (verdict.disk) writeDisk(json, *verdict.disk);
  json.key("pressure");
  json.beginObject();
  writePressureLine(json, "cpu", verdict.pressure.cpu);
  writePressureLine(json, "memory", verdict.pressure.memory);
  writePressureLine(json, "io", verdict.pressure.io);
  json.endObject();
  json.endObject();
}

}  // namespace kelvane
