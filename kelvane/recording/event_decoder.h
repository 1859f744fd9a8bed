#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kelvane/recording/recorded_events.h"
#include "kelvane/recording/recording.h"
#include "kelvane/recording/trace_format.h"

namespace kelvane {

/// The newest name of each thread, whatever the order in which names come in.
class ThreadNames {
 public:
  ThreadNames();

  /// `comm` is cut at its first zero byte.
  void note(int32_t tid, uint64_t atNs, std::string_view comm);
  std::unordered_map<int32_t, std::string> take();

 private:
  struct Name {
    uint64_t atNs = 0;
    std::array<char, 16> comm{};
  };
  struct Recent {
    int32_t tid = 0;
    Name* name = nullptr;
  };
  std::unordered_map<int32_t, Name> names_;
  /// A few threads make most events: these save the look-up. The map never moves what it holds.
  std::vector<Recent> recent_;
};

/// Turns the kernel's events into the recorder's. Where members lie is looked up once, in add.
class EventDecoder {
 public:
  /// Takes in an event as the kernel's `format` text describes it; false if it lacks what `source` needs.
  bool add(const EventSource& source, std::string_view format);

  /// The event whose bytes begin with its number; nothing for events that were not added. The names and texts
  /// that it brings are kept until they are taken.
  std::optional<RecordedEvent> decode(std::span<const uint8_t> bytes, uint64_t atNs, uint16_t cpu);

  std::unordered_map<int32_t, std::string> takeNames() { return names_.take(); }
  std::vector<std::string> takeTexts() { return std::move(texts_); }

 private:
  struct Layout {
    const EventSource* source = nullptr;
    std::array<FormatField, 5> fields{};
    size_t minBytes = 0;
  };
  void fill(const Layout& layout, std::span<const uint8_t> bytes, RecordedEvent& event);

  std::vector<Layout> layouts_;
  std::vector<uint8_t> layoutOfId_;  // index + 1; 0: not asked for
  FormatField thread_;
  StateLetters stateLetters_{};
  ThreadNames names_;
  std::vector<std::string> texts_;
};

}  // namespace kelvane
