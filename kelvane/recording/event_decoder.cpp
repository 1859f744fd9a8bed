#include "kelvane/recording/event_decoder.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

constexpr size_t kRecentNames = 1'024;  // a power of two
constexpr uint32_t kSectorBytes = 512;
// Bits of common_flags (the kernel's trace_events.h).
constexpr uint64_t kInInterrupt = 0x08 | 0x10 | 0x40;  // hard, soft, not maskable

uint64_t number(std::span<const uint8_t> bytes, FormatField field) {
  const uint8_t* at = bytes.data() + field.offset;
  const auto as = [at](auto value) {
    std::memcpy(&value, at, sizeof value);
    return static_cast<uint64_t>(value);
  };
  switch (field.size) {
    case 1:
      return as(uint8_t{});
    case 2:
      return as(uint16_t{});
    case 4:
      return as(uint32_t{});
    case 8:
      return as(uint64_t{});
    default:
      return 0;
  }
}

int32_t signedNumber(std::span<const uint8_t> bytes, FormatField field) {
  return static_cast<int32_t>(number(bytes, field));
}

/// Up to the first zero byte; a field without a size goes on to the end of the event.
std::string_view text(std::span<const uint8_t> bytes, FormatField field) {
  const size_t room = field.size ? field.size : bytes.size() - field.offset;
  const auto* start = reinterpret_cast<const char*>(bytes.data()) + field.offset;
  return {start, strnlen(start, room)};
}

}  // namespace

ThreadNames::ThreadNames() : recent_(kRecentNames) {}

void ThreadNames::note(int32_t tid, uint64_t atNs, std::string_view comm) {
  if (tid <= 0) return;  // the idle tasks
  Recent& recent = recent_[static_cast<size_t>(tid) & (kRecentNames - 1)];
  if (recent.tid != tid) {
    if (names_.size() >= kMaxThreadNames && !names_.contains(tid)) return;
    recent = {tid, &names_[tid]};
  }
  if (atNs < recent.name->atNs) return;
  recent.name->atNs = atNs;
  recent.name->comm.fill(0);
  std::copy_n(comm.begin(), std::min(comm.size(), recent.name->comm.size() - 1), recent.name->comm.begin());
}

std::unordered_map<int32_t, std::string> ThreadNames::take() {
  std::unordered_map<int32_t, std::string> names;
  names.reserve(names_.size());
  for (const auto& [tid, name] : names_) names.emplace(tid, name.comm.data());
  names_.clear();
  recent_.assign(kRecentNames, {});
  return names;
}

bool EventDecoder::add(const EventSource& source, std::string_view format) {
  const auto id = parseFormatId(format);
  const auto thread = parseFormatField(format, "common_pid");
  if (!id || !thread || layouts_.size() == UINT8_MAX) return false;
  Layout layout;
  layout.source = &source;
  layout.minBytes = thread->offset + thread->size;
  for (size_t i = 0; i < source.fields.size() && source.fields[i]; ++i) {
    const auto field = parseFormatField(format, source.fields[i]);
    if (!field) return false;
    layout.fields[i] = *field;
    layout.minBytes = std::max<size_t>(layout.minBytes, field->offset + field->size);
  }
  thread_ = *thread;  // the members common to all lie at the same place in each
  if (source.kind == RecordedKind::contextSwitch) stateLetters_ = parseStateLetters(format);
  layouts_.push_back(layout);
  if (layoutOfId_.size() <= *id) layoutOfId_.resize(size_t{*id} + 1);
  layoutOfId_[*id] = static_cast<uint8_t>(layouts_.size());
  return true;
}

std::optional<RecordedEvent> EventDecoder::decode(std::span<const uint8_t> bytes, uint64_t atNs,
                                                  uint16_t cpu) {
  uint16_t id = 0;
  if (bytes.size() < sizeof id) return std::nullopt;
  std::memcpy(&id, bytes.data(), sizeof id);
  if (id >= layoutOfId_.size() || layoutOfId_[id] == 0) return std::nullopt;
  const Layout& layout = layouts_[layoutOfId_[id] - 1u];
  if (bytes.size() < layout.minBytes) return std::nullopt;
  if (layout.source->kind == RecordedKind::mark && texts_.size() == kMaxMarks) return std::nullopt;
  RecordedEvent event;
  event.atNs = atNs;
  event.kind = layout.source->kind;
  event.cpu = cpu;
  event.tid = signedNumber(bytes, thread_);
  fill(layout, bytes, event);
  return event;
}

void EventDecoder::fill(const Layout& layout, std::span<const uint8_t> bytes, RecordedEvent& event) {
  const auto& field = layout.fields;
  switch (event.kind) {
    case RecordedKind::contextSwitch:
      event.tid = signedNumber(bytes, field[0]);
      event.state = switchState(number(bytes, field[1]), stateLetters_);
      event.other = signedNumber(bytes, field[3]);
      names_.note(event.tid, event.atNs, text(bytes, field[2]));
      names_.note(event.other, event.atNs, text(bytes, field[4]));
      break;
    case RecordedKind::wakeup:
      event.other = signedNumber(bytes, field[0]);
      event.state = (number(bytes, field[2]) & kInInterrupt) ? 'i' : 'R';
      names_.note(event.other, event.atNs, text(bytes, field[1]));
      break;
    case RecordedKind::blockIssue:
    case RecordedKind::blockComplete: {
      event.device = static_cast<uint32_t>(number(bytes, field[0]));
      event.value = number(bytes, field[1]);
      event.state = blockOperation(text(bytes, field[3]));
      const auto length = static_cast<uint32_t>(number(bytes, field[2]));
      event.bytes = event.kind == RecordedKind::blockIssue ? length : length * kSectorBytes;
      break;
    }
    case RecordedKind::signal:
      event.other = std::exchange(event.tid, signedNumber(bytes, field[0]));
      event.value = number(bytes, field[1]);
      break;
    case RecordedKind::fileFault:
      event.device = static_cast<uint32_t>(number(bytes, field[0]));
      event.value = number(bytes, field[1]);
      break;
    case RecordedKind::suspendBegin:
      if (number(bytes, field[0]) == 0) event.kind = RecordedKind::suspendEnd;
      break;
    case RecordedKind::newTask:
      event.other = signedNumber(bytes, field[0]);
      event.value = number(bytes, field[2]);
      names_.note(event.other, event.atNs, text(bytes, field[1]));
      break;
    case RecordedKind::mark: {
      std::string_view mark = text(bytes, field[0]);
      while (!mark.empty() && mark.back() == '\n') mark.remove_suffix(1);
      event.value = texts_.size();
      texts_.emplace_back(mark.substr(0, kMaxMarkBytes));
      break;
    }
    default:
      break;
  }
}

}  // namespace kelvane
