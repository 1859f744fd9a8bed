#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string>

#include "kelvane/base/limits.h"
#include "kelvane/recording/cpu_history.h"
#include "kelvane/recording/event_decoder.h"
#include "kelvane/recording/kernel_view.h"
#include "kelvane/recording/page_drain.h"
#include "kelvane/recording/recorder_folder.h"
#include "kelvane/recording/recording.h"

namespace kelvane {
namespace {

constexpr const char* kWhat = "flight recorder";

/// Puts ascending lists together into one.
std::vector<RecordedEvent> merged(std::vector<std::vector<RecordedEvent>> lists) {
  const auto earlier = [](const RecordedEvent& a, const RecordedEvent& b) { return a.atNs < b.atNs; };
  while (lists.size() > 1) {
    for (size_t i = 0; i + 1 < lists.size(); i += 2) {
      std::vector<RecordedEvent> both;
      both.reserve(lists[i].size() + lists[i + 1].size());
      std::merge(lists[i].begin(), lists[i].end(), lists[i + 1].begin(), lists[i + 1].end(),
                 std::back_inserter(both), earlier);
      lists[i / 2] = std::move(both);
      lists[i + 1] = {};
    }
    if (lists.size() % 2 == 1) lists[lists.size() / 2] = std::move(lists.back());
    lists.resize((lists.size() + 1) / 2);
  }
  return lists.empty() ? std::vector<RecordedEvent>() : std::move(lists[0]);
}

/// Decodes what the drain has, the newest pages of all CPUs first, so that a limit leaves out the oldest
/// events.
void decode(const PageDrain& drain, size_t pageBytes, uint64_t startedNs, EventDecoder& decoder,
            const Deadline& deadline, Recording& recording) {
  std::vector<CpuHistory> cpus;
  for (const PageDrain::Cpu& cpu : drain.cpus()) {
    cpus.emplace_back(cpu, pageBytes, startedNs, recording.toNs);
  }
  size_t events = 0;
  while (true) {
    auto newest = cpus.end();
    for (auto cpu = cpus.begin(); cpu != cpus.end(); ++cpu) {
      if (cpu->has() && (newest == cpus.end() || cpu->pageNs() > newest->pageNs())) newest = cpu;
    }
    if (newest == cpus.end()) break;
    if (events >= kMaxRecordedEvents || deadline.passed()) {
      recording.omissions.push_back(
          {"older events of the flight recorder",
           deadline.passed() ? "reading took too long" : "more than a report takes"});
      break;
    }
    events += newest->take(decoder, recording.fromNs, recording.toNs);
  }
  std::vector<std::vector<RecordedEvent>> lists;
  uint64_t coveredFromNs = recording.fromNs;
  for (CpuHistory& cpu : cpus) {
    coveredFromNs = std::max(coveredFromNs, cpu.coveredFromNs());
    recording.lostEvents += cpu.lost();
    lists.push_back(cpu.releaseEvents());
  }
  recording.coveredFromNs = std::min(coveredFromNs, recording.toNs);
  recording.events = merged(std::move(lists));
  recording.threadNames = decoder.takeNames();
  recording.texts = decoder.takeTexts();
}

/// Looks up the layout of each event; what the kernel hasn't got becomes an omission.
EventDecoder makeDecoder(int instance, Recording& recording) {
  EventDecoder decoder;
  for (const EventSource& source : kEventSources) {
    const std::string path = std::string("events/") + source.system + "/" + source.name + "/format";
    const FileText format = readFileAt(instance, path.c_str(), kMaxProcFileBytes);
    if (source.isOptional && format.error == ENOENT) continue;
    if (!decoder.add(source, format.text)) {
      recording.omissions.push_back({std::string("event ") + source.name + " of the flight recorder",
                                     format.error ? errorText(format.error) : "the kernel's is another one"});
    }
  }
  return decoder;
}

/// Why nothing of the drain can be used; empty: all of it can.
std::string failureOf(PageDrain::Result result, const RecorderFolder& folder) {
  const std::string reason = errorText(errno);
  switch (result) {
    case PageDrain::Result::whole:
      return {};
    case PageDrain::Result::late:
      return "reading took too long";
    case PageDrain::Result::unreadable:
      return "its buffer can't be read: " + reason;
    case PageDrain::Result::notKept:
      // Pages have been taken from the kernel and are nowhere: what comes after is a new past.
      return "what was read can't be kept: " + reason +
             (folder.forgetPast(kernelNs()) ? "" : "; nor can that be noted: " + errorText(errno));
  }
  return {};
}

/// Empty when the recording has been read, else why not. In the kernel's time.
std::string read(Recording& recording, const Deadline& deadline) {
  std::string error;
  const auto folder = RecorderFolder::open(deadline, error);
  if (!folder) return error;
  const UniqueFd instance = folder->openInstance();
  if (!instance) return errno == ENOENT ? kRecorderNotRunning : errorText(errno);
  if (const std::string foreign = foreignThreads(); !foreign.empty()) return foreign;
  const FileText tracing = readFileAt(instance.get(), "tracing_on", kMaxProcFileBytes);
  if (!tracing.text.starts_with('1'))
    return tracing.error ? errorText(tracing.error) : "someone has switched it off";
  const size_t pageBytes = readPageBytes(instance.get());
  if (pageBytes == 0) return "the kernel doesn't say how large its pages are";

  PageDrain drain(instance.get(), folder->fd(), pageBytes);
  error = failureOf(drain.run(deadline, kernelNs()), *folder);
  if (!error.empty()) return error;
  EventDecoder decoder = makeDecoder(instance.get(), recording);
  decode(drain, pageBytes, folder->startedNs().value_or(UINT64_MAX), decoder, deadline, recording);
  return {};
}

/// No earlier than the beginning of the clock that it leads to.
uint64_t shifted(uint64_t ns, int64_t byNs) {
  const auto moved = static_cast<int64_t>(ns) + byNs;
  return moved < 0 ? 0 : static_cast<uint64_t>(moved);
}

}  // namespace

Recording readRecording(uint64_t fromNs, uint64_t toNs, const Deadline& deadline) {
  const int64_t offsetNs = clockOffsetNs();
  Recording recording;
  recording.toNs = recording.coveredFromNs = shifted(toNs, -offsetNs);
  recording.fromNs = std::min(shifted(fromNs, -offsetNs), recording.toNs);
  const std::string failure = read(recording, deadline);
  if (!failure.empty()) recording.omissions.push_back({kWhat, failure});
  for (RecordedEvent& event : recording.events) event.atNs = shifted(event.atNs, offsetNs);
  for (uint64_t* ns : {&recording.fromNs, &recording.toNs, &recording.coveredFromNs}) {
    *ns = shifted(*ns, offsetNs);
  }
  return recording;
}

}  // namespace kelvane
