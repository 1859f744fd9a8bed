#include "kelvane/sampling/sampled_thread.h"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <string_view>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/base/wire.h"
#include "kelvane/threads/thread_facts.h"

namespace kelvane {
namespace {

perf_event_attr eventOf(uint64_t what) {
  perf_event_attr event{};
  event.type = PERF_TYPE_SOFTWARE;
  event.size = sizeof event;
  event.config = what;
  event.sample_type = PERF_SAMPLE_IDENTIFIER | PERF_SAMPLE_TIME | PERF_SAMPLE_READ | PERF_SAMPLE_CALLCHAIN |
                      PERF_SAMPLE_REGS_USER | PERF_SAMPLE_STACK_USER;
  event.exclude_callchain_user = 1;  // by frame pointers, which programs don't have
  event.read_format = PERF_FORMAT_GROUP;
  event.sample_regs_user = userRegistersMask();
  event.sample_stack_user = kSampledStackBytes;
  event.write_backward = 1;
  event.use_clockid = 1;
  event.clockid = CLOCK_MONOTONIC;
  return event;
}

UniqueFd openEvent(perf_event_attr event, pid_t tid, int group) {
  return UniqueFd(
      static_cast<int>(syscall(SYS_perf_event_open, &event, tid, -1, group, PERF_FLAG_FD_CLOEXEC)));
}

size_t mappedBytes() {
  return kSampleRingBytes + static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

std::unique_ptr<SampledThread> SampledThread::begin(pid_t pid, int64_t threadId, int& error) {
  std::unique_ptr<SampledThread> thread(new SampledThread(pid, threadId));
  error = thread->open();
  if (error != 0) thread.reset();
  return thread;
}

int SampledThread::open() {
  process_ = UniqueFd(::open(("/proc/" + std::to_string(pid_)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!process_) return errno;
  const pid_t called = threadCalled(process_.get(), threadId_);
  tid_ = called == 0 ? pid_ : called;
  perf_event_attr clock = eventOf(PERF_COUNT_SW_CPU_CLOCK);
  clock.freq = 1;
  clock.sample_freq = kSamplesPerSecond;
  clock.disabled = 1;
  clock.exclude_callchain_kernel = 1;  // where the kernel computed is of no interest, what it waited for is
  clock_ = openEvent(clock, tid_, -1);
  if (!clock_) return errno;
  perf_event_attr switches = eventOf(PERF_COUNT_SW_CONTEXT_SWITCHES);
  switches.sample_period = 1;
  switches.context_switch = 1;
  switches.comm = 1;  // and the thread's end
  switches.sample_id_all = 1;
  switches_ = openEvent(switches, tid_, clock_.get());
  if (!switches_ || ioctl(switches_.get(), PERF_EVENT_IOC_ID, &switchId_) != 0) return errno;
  // The number may have passed to another process's thread before the events were there: nothing has been
  // counted of that one yet. What it is now it was then, or those are events of a thread that has ended.
  if (faccessat(process_.get(), taskPath(tid_, "stat").c_str(), F_OK, 0) != 0) return ESRCH;
  const auto stat = currentStat();
  if (!stat || stat->startStack == 0) return ESRCH;
  noteProgram(*stat);
  void* memory = mmap(nullptr, mappedBytes(), PROT_READ, MAP_SHARED, clock_.get(), 0);
  if (memory == MAP_FAILED) return errno;
  mapped_ = static_cast<std::byte*>(memory);
  if (ioctl(switches_.get(), PERF_EVENT_IOC_SET_OUTPUT, clock_.get()) != 0 ||
      ioctl(clock_.get(), PERF_EVENT_IOC_ENABLE, PERF_IOC_FLAG_GROUP) != 0)
    return errno;
  markClocks();
  if (marks_.empty()) return EIO;
  noteWait(marks_.back());
  return 0;
}

std::optional<ProcStat> SampledThread::currentStat() const {
  return parseStat(readFileAt(process_.get(), "stat", kMaxProcFileBytes).text);
}

void SampledThread::noteProgram(const ProcStat& stat) {
  startTicks_ = stat.startTicks;
  startStack_ = stat.startStack;
  comm_ = stat.comm;
}

/// Of a thread that has not been on a CPU since that mark.
void SampledThread::noteWait(const ClockMark& since) {
  const auto isThen = [&](const auto& times) {
    return times.cpuNs == since.cpuNs && times.switches == since.switches;
  };
  const bool isSampled = !store_.kept().empty() && store_.kept().back().times.leftCpu &&
                         store_.kept().back().times.switches == since.switches;
  const bool isNoted = !waits_.empty() && isThen(waits_.back().since);
  if (isSampled || isNoted || waits_.size() == kMaxNotedWaits) return;
  const std::string channel =
      readFileAt(process_.get(), taskPath(tid_, "wchan").c_str(), kMaxProcFileBytes).text;
  const std::array<uint64_t, 3> clocks = readClocks();
  const bool hasNotRun = clocks[1] == since.cpuNs && clocks[2] == since.switches;
  if (hasNotRun && !channel.empty() && channel != "0") waits_.push_back({since, channel});
}

bool SampledThread::goesOn() const {
  const auto stat = currentStat();
  const bool hasEnded = !stat || stat->startStack == 0;
  return hasEnded || (stat->startStack == startStack_ && store_.endedNs() == 0);
}

SampledThread::~SampledThread() {
  if (mapped_) munmap(mapped_, mappedBytes());
}

void SampledThread::collect() {
  ioctl(clock_.get(), PERF_EVENT_IOC_PAUSE_OUTPUT, 1);
  auto* control = reinterpret_cast<perf_event_mmap_page*>(mapped_);
  const uint64_t head = std::atomic_ref(control->data_head).load(std::memory_order_acquire);
  const std::span<const std::byte> ring(mapped_ + mappedBytes() - kSampleRingBytes, kSampleRingBytes);
  for (RecordBytes& record : recordsSince(ring, head, readTo_)) store_.add(std::move(record), switchId_);
  readTo_ = head;
  ioctl(clock_.get(), PERF_EVENT_IOC_PAUSE_OUTPUT, 0);
  // An execution is told of before the kernel has made the stack that the program starts with.
  const bool isNewProgram = store_.executedNs() != programNs_;
  if (isNewProgram) startStack_ = 0;
  const auto stat = isNewProgram || wasNewProgram_ ? currentStat() : std::nullopt;
  if (stat && stat->startStack != 0) noteProgram(*stat);
  programNs_ = store_.executedNs();
  wasNewProgram_ = isNewProgram;
  const ClockMark before = marks_.back();
  markClocks();
  noteWait(before);
  sampleEach(std::max<uint64_t>((marks_.back().switches - before.switches) / kLeavesPerCollection, 1));
}

/// Of a thread that keeps leaving the CPU not each time is sampled. The kernel's own way to a frequency is no
/// use here: after a few leaves in a row it passes over the one that begins a long wait.
void SampledThread::sampleEach(uint64_t leaves) {
  if (leaves == period_ || ioctl(switches_.get(), PERF_EVENT_IOC_PERIOD, &leaves) != 0) return;
  period_ = leaves;
}

/// How many there are, the CPU clock, the switches; all 0 if they can't be read.
std::array<uint64_t, 3> SampledThread::readClocks() const {
  std::array<uint64_t, 3> clocks{};
  if (read(clock_.get(), clocks.data(), sizeof clocks) != sizeof clocks) clocks = {};
  return clocks;
}

void SampledThread::markClocks() {
  // Of one that has ended there is a last mark, and nothing behind it.
  const uint64_t endedNs = store_.endedNs();
  if (endedNs != 0 && !marks_.empty() && marks_.back().atNs >= endedNs) return;
  ClockMark mark;
  const std::array<uint64_t, 3> counters = readClocks();
  mark.atNs = endedNs == 0 ? monotonicNs() : endedNs;
  if (counters[0] == 0) return;
  mark.cpuNs = counters[1];
  mark.switches = counters[2];
  mark.preemptedNs = store_.preemptedNs(mark.atNs);
  // proc(5): time on a CPU, then time in a queue for one.
  const std::string text =
      readFileAt(process_.get(), taskPath(tid_, "schedstat").c_str(), kMaxProcFileBytes).text;
  const size_t second = text.find(' ');
  if (second != std::string::npos)
    std::from_chars(text.data() + second + 1, text.data() + text.size(), mark.readyNs);
  // Of a very long hang the marks between are dropped, not the first and the last.
  if (marks_.size() == kMaxClockMarks) {
    size_t left = 0;
    for (size_t i = 0; i < marks_.size(); i += 2) marks_[left++] = marks_[i];
    marks_.resize(left);
  }
  marks_.push_back(mark);
}

std::string SampledThread::encoded() const {
  WireWriter out;
  out.number(static_cast<uint64_t>(pid_));
  out.number(static_cast<uint64_t>(tid_));
  out.number(startTicks_);
  out.number(startStack_);
  out.text(comm_);
  out.number(store_.executedNs());
  out.number(switchId_);
  const auto writeMark = [&](const ClockMark& mark) {
    for (const uint64_t clock : {mark.atNs, mark.cpuNs, mark.switches, mark.preemptedNs, mark.readyNs})
      out.number(clock);
  };
  out.number(waits_.size());
  for (const NotedWait& wait : waits_) {
    writeMark(wait.since);
    out.text(wait.function);
  }
  out.number(marks_.size());
  for (const ClockMark& mark : marks_) writeMark(mark);
  out.number(store_.kept().size());
  for (const SampleStore::Kept& kept : store_.kept()) {
    for (const uint64_t told : {kept.times.preemptedNs, kept.times.awayNs, uint64_t{kept.times.wasPreempted}})
      out.number(told);
    out.text({reinterpret_cast<const char*>(kept.record.data()), kept.record.size()});
  }
  return out.bytes();
}

KeptSamples readKeptSamples(const std::string& bytes) {
  WireReader in(bytes);
  KeptSamples kept;
  kept.pid = static_cast<pid_t>(in.number());
  kept.tid = static_cast<pid_t>(in.number());
  kept.startTicks = in.number();
  kept.startStack = in.number();
  kept.comm = in.text();
  kept.executedNs = in.number();
  const uint64_t switchId = in.number();
  const auto readMark = [&] {
    ClockMark mark;
    for (uint64_t* clock : {&mark.atNs, &mark.cpuNs, &mark.switches, &mark.preemptedNs, &mark.readyNs})
      *clock = in.number();
    return mark;
  };
  for (uint64_t left = in.number(); left > 0 && !in.failed(); left--) {
    const ClockMark since = readMark();
    kept.waits.push_back({since, in.text()});
  }
  for (uint64_t left = in.number(); left > 0 && !in.failed(); left--) {
    const ClockMark mark = readMark();
    if (!in.failed()) kept.marks.push_back(mark);
  }
  for (uint64_t left = in.number(); left > 0 && !in.failed(); left--) {
    const uint64_t preemptedNs = in.number();
    const uint64_t awayNs = in.number();
    const bool wasPreempted = in.number() != 0;
    const std::string record = in.text();
    auto sample = parseSample(std::as_bytes(std::span(record)), switchId);
    if (!sample) continue;
    sample->times.preemptedNs = preemptedNs;
    sample->times.awayNs = awayNs;
    sample->times.wasPreempted = wasPreempted;
    kept.samples.push_back(std::move(*sample));
  }
  return kept;
}

}  // namespace kelvane
