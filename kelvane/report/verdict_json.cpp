#include "kelvane/report/verdict_json.h"

#include "kelvane/verdict/display_names.h"
#include "kelvane/verdict/syscall_names.h"

namespace kelvane {
void writeNames(JsonWriter& json, const NamedThread& thread) {
  json.member("tid", thread.tid);
  json.member("name", std::string_view(thread.name));
  if (thread.pid == 0) return;
  json.member("pid", thread.pid);
  json.member("process", std::string_view(thread.process));
}

namespace {

void writeFunction(JsonWriter& json, const ProcessCapture& process, pid_t tid) {
  const std::string function = functionOf(process, tid);
  if (!function.empty()) json.member("function", std::string_view(function));
}

void writeEvidence(JsonWriter& json, const Verdict& verdict) {
  json.key("evidence");
  json.beginObject();
  json.member("source", verdict.fromRecorder ? "recorder" : verdict.fromSamples ? "samples" : "one look");
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

void writeDisk(JsonWriter& json, const DiskActivity& disk, const std::optional<NamedThread>& user,
               const std::optional<NamedThread>& rival) {
  json.key("disk");
  json.beginObject();
  json.member("requests", disk.requests);
  json.member("readBytes", disk.readBytes);
  json.member("writtenBytes", disk.writtenBytes);
  json.memberMilliseconds("busyMs", disk.busyNs);
  json.memberMilliseconds("slowestMs", disk.slowestNs);
  if (user) {
    json.key("busiest");
    json.beginObject();
    writeNames(json, *user);
    json.endObject();
  }
  if (rival) {
    json.key("rival");
    json.beginObject();
    writeNames(json, *rival);
    json.endObject();
  }
  json.endObject();
}

void writeWaitsFor(JsonWriter& json, const ChainLink& link) {
  json.key("waitsFor");
  json.beginObject();
  json.member("kind", waitKindName(link.wait->kind));
  if (!link.wait->object.empty()) json.member("object", std::string_view(link.wait->object));
  if (link.holder) {
    json.member("tid", link.holder->tid);
    json.member("sureness", surenessName(link.holder->sureness));
    json.member("evidence", std::string_view(link.holder->evidence));
  }
  json.endObject();
}

void writeChain(JsonWriter& json, const ChainVerdict& verdict, const ProcessCapture& process) {
  json.key("chain");
  json.beginArray();
  const auto& links = verdict.chain.links;
  const size_t firstCulprit = verdict.chain.deadlockFrom.value_or(links.size() - 1);
  for (size_t i = 0; i < links.size(); i++) {
    const ThreadFacts& facts = links[i].party.facts;
    json.beginObject();
    writeNames(json, {facts.tid, facts.comm, links[i].party.pid, links[i].party.process, {}});
    json.member("state", stateName(facts.state));
    if (!facts.waitChannel.empty()) json.member("waitChannel", std::string_view(facts.waitChannel));
    const char* call = facts.syscall ? syscallName(facts.syscall->number) : nullptr;
    if (call) json.member("syscallName", call);
    if (i == 0 || links[i].hasStayed()) writeFunction(json, process, facts.tid);
    json.member("text", std::string_view(verdict.steps[i]));
    if (i >= firstCulprit) json.member("culprit", chainEndName(verdict.end));
    if (links[i].wait) writeWaitsFor(json, links[i]);
    json.endObject();
  }
  json.endArray();
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

void writeVerdict(JsonWriter& json, const Verdict& verdict, const ProcessCapture& process) {
  json.key("verdict");
  json.beginObject();
  json.member("cause", causeName(verdict.cause));
  json.member("sentence", std::string_view(verdict.sentence));
  writeFunction(json, process, process.hungThread);
  writeEvidence(json, verdict);
  if (verdict.spent) writeSpent(json, *verdict.spent);
  writePhases(json, verdict.phases);
  writeWaits(json, verdict.waits);
  writeWakers(json, verdict.wakers);
  if (verdict.chain) writeChain(json, *verdict.chain, process);
  writeBusiest(json, verdict.busiest);
  if (verdict.disk) writeDisk(json, *verdict.disk, verdict.diskUser, verdict.diskRival);
  json.key("pressure");
  json.beginObject();
  writePressureLine(json, "cpu", verdict.pressure.cpu);
  writePressureLine(json, "memory", verdict.pressure.memory);
  writePressureLine(json, "io", verdict.pressure.io);
  json.endObject();
  json.endObject();
}

}  // namespace kelvane
