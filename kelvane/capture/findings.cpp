#include "kelvane/capture/findings.h"

#include <algorithm>
#include <iterator>

#include "kelvane/base/limits.h"
#include "kelvane/base/wire.h"

namespace kelvane {
namespace {

// Each struct has a pair of functions that go through its members in the same order. Signed ids keep their
// value on the way through 64 bits.

template <typename Items, typename Write>
void writeAll(WireWriter& out, const Items& items, Write write) {
  out.number(items.size());
  for (const auto& item : items) write(out, item);
}

template <typename Item, typename Read>
std::vector<Item> readAll(WireReader& in, Read read) {
  std::vector<Item> items;
  // An item takes bytes, so a count that is made up ends where these do.
  for (uint64_t left = in.number(); left > 0 && !in.failed(); left--) items.push_back(read(in));
  return items;
}

pid_t readId(WireReader& in) {
  return static_cast<pid_t>(in.number());
}

void writeNumber(WireWriter& out, uint64_t value) {
  out.number(value);
}

void writeText(WireWriter& out, const std::string& value) {
  out.text(value);
}

void writeFacts(WireWriter& out, const ThreadFacts& facts) {
  out.number(static_cast<uint64_t>(facts.tid));
  out.text(facts.comm);
  out.number(static_cast<unsigned char>(facts.state));
  out.text(facts.waitChannel);
  out.number(static_cast<uint64_t>(int64_t{facts.priority}));
  out.number(static_cast<uint64_t>(facts.tracerPid));
  out.number(facts.syscall.has_value());
  const SystemCall call = facts.syscall.value_or(SystemCall{});
  out.number(static_cast<uint64_t>(call.number));
  for (const uint64_t argument : call.arguments) out.number(argument);
  writeAll(out, facts.kernelStack, writeText);
  for (const uint64_t figure :
       {facts.userMs, facts.systemMs, facts.voluntarySwitches, facts.involuntarySwitches}) {
    out.number(figure);
  }
}

ThreadFacts readFacts(WireReader& in) {
  ThreadFacts facts;
  facts.tid = readId(in);
  facts.comm = in.text();
  facts.state = static_cast<char>(in.number());
  facts.waitChannel = in.text();
  facts.priority = static_cast<int>(in.number());
  facts.tracerPid = readId(in);
  const bool hasCall = in.number() != 0;
  SystemCall call;
  call.number = static_cast<int64_t>(in.number());
  for (uint64_t& argument : call.arguments) argument = in.number();
  if (hasCall) facts.syscall = call;
  facts.kernelStack = readAll<std::string>(in, [](WireReader& from) { return from.text(); });
  for (uint64_t* figure :
       {&facts.userMs, &facts.systemMs, &facts.voluntarySwitches, &facts.involuntarySwitches}) {
    *figure = in.number();
  }
  return facts;
}

void writeThread(WireWriter& out, const ThreadCapture& thread) {
  writeFacts(out, thread.facts);
  out.text(thread.noStack);
  out.number(thread.stack.has_value());
  if (!thread.stack) return;
  out.number(thread.stack->atNs);
  out.number(thread.stack->stoppedUs);
  writeAll(out, thread.stack->frames, writeNumber);
  out.text(thread.stack->cutOff);
}

std::vector<uint32_t> readFrameIndices(WireReader& in) {
  return readAll<uint32_t>(in, [](WireReader& from) { return static_cast<uint32_t>(from.number()); });
}

ThreadCapture readThread(WireReader& in) {
  ThreadCapture thread;
  thread.facts = readFacts(in);
  thread.noStack = in.text();
  if (in.number() == 0) return thread;
  StackSample& stack = thread.stack.emplace();
  stack.atNs = in.number();
  stack.stoppedUs = static_cast<uint32_t>(in.number());
  stack.frames = readFrameIndices(in);
  stack.cutOff = in.text();
  return thread;
}

void writeSample(WireWriter& out, const SampledStack& sample) {
  const SampleTimes& times = sample.times;
  for (const uint64_t value : {times.atNs, times.cpuNs, times.switches, times.preemptedNs, times.awayNs,
                               uint64_t{times.leftCpu}, uint64_t{times.wasPreempted}})
    out.number(value);
  writeAll(out, sample.frames, writeNumber);
  writeAll(out, sample.kernelFrames, writeText);
}

SampledStack readSample(WireReader& in) {
  SampledStack sample;
  for (uint64_t* value : {&sample.times.atNs, &sample.times.cpuNs, &sample.times.switches,
                          &sample.times.preemptedNs, &sample.times.awayNs})
    *value = in.number();
  for (bool* flag : {&sample.times.leftCpu, &sample.times.wasPreempted}) *flag = in.number() != 0;
  sample.frames = readFrameIndices(in);
  sample.kernelFrames = readAll<std::string>(in, [](WireReader& from) { return from.text(); });
  return sample;
}

void writeMark(WireWriter& out, const ClockMark& mark) {
  for (const uint64_t value : {mark.atNs, mark.cpuNs, mark.switches, mark.preemptedNs, mark.readyNs})
    out.number(value);
}

ClockMark readMark(WireReader& in) {
  ClockMark mark;
  for (uint64_t* value : {&mark.atNs, &mark.cpuNs, &mark.switches, &mark.preemptedNs, &mark.readyNs})
    *value = in.number();
  return mark;
}

void writeFrame(WireWriter& out, const Frame& frame) {
  out.number(frame.address);
  out.number(static_cast<uint64_t>(int64_t{frame.module}));
  out.number(frame.offset);
  out.text(frame.name);
}

Frame readFrame(WireReader& in) {
  Frame frame;
  frame.address = in.number();
  frame.module = static_cast<int32_t>(in.number());
  frame.offset = in.number();
  frame.name = in.text();
  return frame;
}

void writeModule(WireWriter& out, const Module& module) {
  out.text(module.path);
  out.text(module.buildId);
}

void writeOmission(WireWriter& out, const Omission& omission) {
  out.text(omission.what);
  out.text(omission.why);
}

void writeParty(WireWriter& out, const WaitParty& party) {
  out.number(static_cast<uint64_t>(party.pid));
  out.text(party.process);
  writeFacts(out, party.facts);
}

WaitParty readParty(WireReader& in) {
  WaitParty party;
  party.pid = readId(in);
  party.process = in.text();
  party.facts = readFacts(in);
  return party;
}

void writeHolder(WireWriter& out, const WaitHolder& holder) {
  out.number(static_cast<uint64_t>(holder.pid));
  out.number(static_cast<uint64_t>(holder.tid));
  out.number(static_cast<uint64_t>(holder.sureness));
  out.text(holder.evidence);
}

/// A number that stands for none of them is the last one.
template <typename Enum>
Enum readEnum(WireReader& in, Enum last) {
  return static_cast<Enum>(std::min<uint64_t>(in.number(), static_cast<uint64_t>(last)));
}

WaitHolder readHolder(WireReader& in) {
  WaitHolder holder;
  holder.pid = readId(in);
  holder.tid = readId(in);
  holder.sureness = readEnum(in, Sureness::guess);
  holder.evidence = in.text();
  return holder;
}

void writeWait(WireWriter& out, const PartyWait& wait) {
  out.number(static_cast<uint64_t>(wait.tid));
  out.number(static_cast<uint64_t>(wait.kind));
  out.text(wait.object);
  writeAll(out, wait.holders, writeHolder);
  writeAll(out, wait.candidates, writeHolder);
  out.number(wait.hasMoreCandidates);
  out.number(wait.isRetried);
  out.number(wait.timeLeftNs);
}

PartyWait readWait(WireReader& in) {
  PartyWait wait;
  wait.tid = readId(in);
  wait.kind = readEnum(in, kLastWaitKind);
  wait.object = in.text();
  wait.holders = readAll<WaitHolder>(in, readHolder);
  wait.candidates = readAll<WaitHolder>(in, readHolder);
  wait.hasMoreCandidates = in.number() != 0;
  wait.isRetried = in.number() != 0;
  wait.timeLeftNs = in.number();
  return wait;
}

void writeWatch(WireWriter& out, const PartyWatch& watch) {
  out.number(static_cast<uint64_t>(watch.tid));
  for (const bool flag : {watch.moved, watch.frozen, watch.throttled}) out.number(flag);
  out.number(watch.watchedNs);
  out.number(watch.ranNs);
}

PartyWatch readWatch(WireReader& in) {
  PartyWatch watch;
  watch.tid = readId(in);
  for (bool* flag : {&watch.moved, &watch.frozen, &watch.throttled}) *flag = in.number() != 0;
  watch.watchedNs = in.number();
  watch.ranNs = in.number();
  return watch;
}

void writeOther(WireWriter& out, const OtherThread& other) {
  out.number(static_cast<uint64_t>(other.pid));
  out.text(other.process);
  writeThread(out, other.thread);
}

OtherThread readOtherThread(WireReader& in) {
  OtherThread other;
  other.pid = readId(in);
  other.process = in.text();
  other.thread = readThread(in);
  other.thread.stack.reset();  // its frames come with a part of its own (addOther)
  return other;
}

ProcessCapture readPart(WireReader& in) {
  ProcessCapture part;
  part.pid = readId(in);
  part.comm = in.text();
  part.hungThread = readId(in);
  part.threadCount = in.number();
  part.threads = readAll<ThreadCapture>(in, readThread);
  part.frames = readAll<Frame>(in, readFrame);
  part.modules = readAll<Module>(in, [](WireReader& from) {
    Module module;
    module.path = from.text();
    module.buildId = from.text();
    return module;
  });
  part.samples = readAll<SampledStack>(in, readSample);
  part.clockMarks = readAll<ClockMark>(in, readMark);
  part.waits.parties = readAll<WaitParty>(in, readParty);
  part.waits.waits = readAll<PartyWait>(in, readWait);
  part.waits.watches = readAll<PartyWatch>(in, readWatch);
  part.others = readAll<OtherThread>(in, readOtherThread);
  part.omissions = readAll<Omission>(in, [](WireReader& from) {
    Omission omission;
    omission.what = from.text();
    omission.why = from.text();
    return omission;
  });
  return part;
}

template <typename Item>
void append(std::vector<Item>& items, std::vector<Item>& more) {
  std::move(more.begin(), more.end(), std::back_inserter(items));
}

template <typename Item>
void appendUpTo(size_t most, std::vector<Item>& items, std::vector<Item>& more) {
  append(items, more);
  if (items.size() > most) items.resize(most);
}

void addThread(ThreadCapture& thread, ProcessCapture& whole) {
  const auto known = std::find_if(whole.threads.begin(), whole.threads.end(), [&](const ThreadCapture& one) {
    return one.facts.tid == thread.facts.tid;
  });
  if (known == whole.threads.end()) {
    if (whole.threads.size() < kMaxThreadsListed) whole.threads.push_back(std::move(thread));
    return;
  }
  if (thread.stack) known->stack = std::move(thread.stack);
  if (!thread.noStack.empty()) known->noStack = std::move(thread.noStack);
}

void add(ProcessCapture& part, ProcessCapture& whole) {
  if (part.pid != 0) whole.pid = part.pid;
  if (!part.comm.empty()) whole.comm = std::move(part.comm);
  if (part.hungThread != 0) whole.hungThread = part.hungThread;
  if (part.threadCount != 0) whole.threadCount = part.threadCount;
  append(whole.waits.parties, part.waits.parties);
  append(whole.waits.waits, part.waits.waits);
  append(whole.waits.watches, part.waits.watches);
  append(whole.others, part.others);
  appendUpTo(kMaxKeptSamples + kMaxNotedWaits, whole.samples, part.samples);
  appendUpTo(kMaxClockMarks, whole.clockMarks, part.clockMarks);
  append(whole.frames, part.frames);
  append(whole.modules, part.modules);
  append(whole.omissions, part.omissions);
  for (ThreadCapture& thread : part.threads) addThread(thread, whole);
}

bool leadsSomewhere(const ProcessCapture& part, const ProcessCapture& whole) {
  const size_t modules = whole.modules.size() + part.modules.size();
  const size_t frames = whole.frames.size() + part.frames.size();
  const auto areKnown = [&](const std::vector<uint32_t>& indices) {
    return std::all_of(indices.begin(), indices.end(), [&](uint32_t frame) { return frame < frames; });
  };
  return std::all_of(part.frames.begin(), part.frames.end(),
                     [&](const Frame& frame) {
                       return frame.module >= -1 &&
                              (frame.module < 0 || static_cast<size_t>(frame.module) < modules);
                     }) &&
         std::all_of(
             part.threads.begin(), part.threads.end(),
             [&](const ThreadCapture& thread) { return !thread.stack || areKnown(thread.stack->frames); }) &&
         std::all_of(part.samples.begin(), part.samples.end(),
                     [&](const SampledStack& sample) { return areKnown(sample.frames); });
}

}  // namespace

std::string encodeFindings(const ProcessCapture& part) {
  WireWriter out;
  out.number(static_cast<uint64_t>(part.pid));
  out.text(part.comm);
  out.number(static_cast<uint64_t>(part.hungThread));
  out.number(part.threadCount);
  writeAll(out, part.threads, writeThread);
  writeAll(out, part.frames, writeFrame);
  writeAll(out, part.modules, writeModule);
  writeAll(out, part.samples, writeSample);
  writeAll(out, part.clockMarks, writeMark);
  writeAll(out, part.waits.parties, writeParty);
  writeAll(out, part.waits.waits, writeWait);
  writeAll(out, part.waits.watches, writeWatch);
  writeAll(out, part.others, writeOther);
  writeAll(out, part.omissions, writeOmission);
  return out.bytes();
}

bool addFindings(std::string_view bytes, ProcessCapture& whole) {
  WireReader in(bytes);
  while (!in.atEnd()) {
    ProcessCapture part = readPart(in);
    if (in.failed() || !leadsSomewhere(part, whole)) return false;
    add(part, whole);
  }
  return true;
}

void addOther(ProcessCapture& parsed, ThreadCapture& thread, ProcessCapture& whole) {
  const auto frames = static_cast<uint32_t>(whole.frames.size());
  const auto modules = static_cast<int32_t>(whole.modules.size());
  append(whole.omissions, parsed.omissions);
  for (ThreadCapture& one : parsed.threads) {
    if (one.facts.tid != thread.facts.tid || !one.stack) continue;
    thread.stack = std::move(one.stack);
    for (uint32_t& frame : thread.stack->frames) frame += frames;
  }
  if (!thread.stack) return;
  for (Frame& frame : parsed.frames) {
    if (frame.module >= 0) frame.module += modules;
  }
  append(whole.frames, parsed.frames);
  append(whole.modules, parsed.modules);
}

}  // namespace kelvane
