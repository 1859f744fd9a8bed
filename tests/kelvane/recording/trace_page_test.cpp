#include "kelvane/recording/trace_page.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kelvane/recorder/recorder_status.h"
#include "kelvane/recording/event_decoder.h"
#include "kelvane/recording/trace_format.h"

namespace kelvane {
namespace {

/// sched_switch of Linux 6.18, the print format cut to what matters.
constexpr const char* kSwitchFormat =
    "name: sched_switch\nID: 372\nformat:\n"
    "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
    "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n"
    "\tfield:char prev_comm[16];\toffset:8;\tsize:16;\tsigned:0;\n"
    "\tfield:pid_t prev_pid;\toffset:24;\tsize:4;\tsigned:1;\n"
    "\tfield:int prev_prio;\toffset:28;\tsize:4;\tsigned:1;\n"
    "\tfield:long prev_state;\toffset:32;\tsize:8;\tsigned:1;\n"
    "\tfield:char next_comm[16];\toffset:40;\tsize:16;\tsigned:0;\n"
    "\tfield:pid_t next_pid;\toffset:56;\tsize:4;\tsigned:1;\n\n"
    "print fmt: \"prev_state=%s%s\", "
    "(REC->prev_state & 0xff) ? __print_flags(REC->prev_state & 0xff, \"|\", "
    "{ 0x00000001, \"S\" }, { 0x00000002, \"D\" }, { 0x00000004, \"T\" }, { 0x00000008, \"t\" }, "
    "{ 0x00000010, \"X\" }, { 0x00000020, \"Z\" }, { 0x00000040, \"P\" }, { 0x00000080, \"I\" }) : \"R\", "
    "REC->prev_state & 0x100 ? \"+\" : \"\"";

/// The same of Linux 4.9, where bits beside the state's own are told too.
constexpr const char* kOldStates =
    "__print_flags(REC->prev_state & (2048-1), \"|\", { 1, \"S\"} , { 2, \"D\" }, { 4, \"T\" }, "
    "{ 8, \"t\" }, { 16, \"Z\" }, { 32, \"X\" }, { 64, \"x\" }, { 128, \"K\" }, { 256, \"W\" }, "
    "{ 512, \"P\" }, { 1024, \"N\" })";

/// The begin of a page that Linux 6.18 gave out: four context switches.
constexpr const char* kPage =
    "6c19e3d48d0d0000100100000000000010000000"
    "74010102655c0000736c6565700000000000000000000000655c0000780000000100000000000000"
    "6c696e75785f70726f636573736573005f5c00007d000000b08e7f16"
    "740101026b5c0000736c65657000000000000000000000006b5c0000780000000100000000000000"
    "6c696e75785f70726f636573736573005f5c00007d0000009040f605"
    "74010102765c0000736c6565700000000000000000000000765c0000780000000001000000000000"
    "707974686f6e33000000000000000000625900007800000070433f00"
    "7401010262590000707974686f6e3300000000000000000062590000780000000200000000000000"
    "736c6565700000000000000000000000765c000078000000";

std::vector<uint8_t> bytesOf(const std::string& hex) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

FormatField fieldOf(std::string_view format, std::string_view name) {
  return parseFormatField(format, name).value_or(FormatField{UINT32_MAX, UINT32_MAX});
}

TEST(TraceFormat, FindsMembersAndStatesOfOldAndNewKernels) {
  EXPECT_EQ(parseFormatId(kSwitchFormat), 372);
  EXPECT_EQ(fieldOf(kSwitchFormat, "next_comm").offset, 40u);
  EXPECT_EQ(fieldOf(kSwitchFormat, "prev_state").size, 8u);
  EXPECT_FALSE(parseFormatField(kSwitchFormat, "comm"));
  EXPECT_EQ(fieldOf("\tfield:char buf[];\toffset:16;\tsize:0;\tsigned:0;", "buf").size, 0u);
  EXPECT_TRUE(parseFormatField("\tfield:__data_loc char[] cmd;\toffset:60;\tsize:4;\tsigned:0;", "cmd"));
  for (const char* broken : {"", "field:", "field:int a", "field:int a;\toffset:x;\tsize:4;",
                             "field:int a;\toffset:99999999;\tsize:4;", "field:int a;\toffset:1;"}) {
    EXPECT_FALSE(parseFormatField(broken, "a")) << broken;
    EXPECT_FALSE(parseFormatId(broken));
  }

  const StateLetters now = parseStateLetters(kSwitchFormat);
  const StateLetters before = parseStateLetters(kOldStates);
  for (const auto& [value, letter] : std::vector<std::pair<uint64_t, char>>{
           {0, 'R'}, {1, 'S'}, {2, 'D'}, {4, 'T'}, {8, 't'}, {0x20, 'Z'}, {0x80, 'I'}, {0x100, 'R'}}) {
    EXPECT_EQ(switchState(value, now), letter) << value;
  }
  EXPECT_EQ(switchState(130, before), 'D');  // may be killed
  EXPECT_EQ(switchState(16, before), 'Z');
  EXPECT_EQ(switchState(1 | 2048, before), 'R');  // preempted on its way to sleep
  EXPECT_EQ(switchState(UINT64_MAX, now), 'R');

  for (const auto& [rwbs, operation] : std::vector<std::pair<const char*, char>>{{"R", 'R'},
                                                                                 {"RAM", 'R'},
                                                                                 {"WS", 'W'},
                                                                                 {"FWFS", 'W'},
                                                                                 {"FF", 'F'},
                                                                                 {"FN", 'F'},
                                                                                 {"DE", 'D'},
                                                                                 {"N", '?'},
                                                                                 {"", '?'}}) {
    EXPECT_EQ(blockOperation(rwbs), operation) << rwbs;
  }
  const BufferStats stats = parseBufferStats(
      "entries: 120\noverrun: 7\ncommit overrun: 2\nbytes: 5000\noldest event ts:     1.5\n"
      "dropped events: 3\n");
  EXPECT_EQ(stats.entries, 120u);
  EXPECT_EQ(stats.bytes, 5'000u);
  EXPECT_EQ(stats.lost, 5u);
}

TEST(TracePage, DecodesWhatTheKernelWrote) {
  EventDecoder decoder;
  ASSERT_TRUE(decoder.add(kEventSources[0], kSwitchFormat));
  EXPECT_FALSE(decoder.add(kEventSources[1], kSwitchFormat));
  const std::vector<uint8_t> bytes = bytesOf(kPage);
  TracePage page(bytes);
  std::vector<RecordedEvent> events;
  while (auto event = page.next()) {
    if (auto decoded = decoder.decode(event->bytes, event->atNs, 3)) events.push_back(*decoded);
  }
  EXPECT_FALSE(page.isBroken());
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].atNs, 14'902'813'202'796u);
  EXPECT_EQ((events[3].atNs + 500) / 1'000, 14'902'828'254u);
  EXPECT_EQ(events[0].tid, 23'653);
  EXPECT_EQ(events[0].other, 23'647);
  EXPECT_EQ(events[3].cpu, 3);
  EXPECT_EQ(std::string({events[0].state, events[1].state, events[2].state, events[3].state}), "SSRD");
  EXPECT_EQ(decoder.takeNames(), (std::unordered_map<int32_t, std::string>{{23'653, "sleep"},
                                                                           {23'659, "sleep"},
                                                                           {23'670, "sleep"},
                                                                           {23'647, "linux_processes"},
                                                                           {22'882, "python3"}}));
}

TEST(TracePage, KeepsTimeThroughEveryKindOfEntry) {
  std::vector<uint8_t> bytes;
  const auto put = [&](auto value) {
    bytes.resize(bytes.size() + sizeof value);
    std::memcpy(bytes.data() + bytes.size() - sizeof value, &value, sizeof value);
  };
  const auto entry = [&](uint32_t kind, uint32_t delta) { put(delta << 5 | kind); };
  const uint64_t base = (uint64_t{5} << 59) + 1'000;
  put(base);
  put(uint64_t{0});                                                    // the length, set below
  entry(1, 7), put(uint32_t{11});                                      // four bytes
  entry(30, 3), put(uint32_t{2});                                      // time goes on by 2 × 2^27 + 3
  entry(0, 1), put(uint32_t{9}), put(uint32_t{12}), put(uint32_t{0});  // five bytes, rounded up
  entry(29, 5), put(uint32_t{8}), put(uint32_t{0});                    // discarded
  entry(31, 9), put(uint32_t{1});                                      // time is 2^27 + 9
  entry(2, 1), put(uint32_t{13}), put(uint32_t{0});
  entry(29, 0), put(uint32_t{0});  // to the end
  const uint64_t flags = uint64_t{3} << 30;
  const uint64_t length = (bytes.size() - 16) | flags;
  std::memcpy(bytes.data() + 8, &length, sizeof length);
  put(uint64_t{42});

  TracePage page(bytes);
  EXPECT_EQ(page.missedBefore(), 42u);
  std::vector<std::pair<uint64_t, size_t>> seen;
  while (auto event = page.next()) seen.emplace_back(event->atNs, event->bytes.size());
  EXPECT_FALSE(page.isBroken());
  EXPECT_EQ(seen, (std::vector<std::pair<uint64_t, size_t>>{{base + 7, 4},
                                                            {base + 7 + (2u << 27) + 3 + 1, 8},
                                                            {(uint64_t{5} << 59) + (1u << 27) + 9 + 1, 8}}));
  for (size_t size = 0; size < bytes.size(); ++size)
    EXPECT_TRUE(TracePage(std::span(bytes).first(size)).isBroken());
  // Whatever a byte is changed to, the walk ends within the page.
  for (size_t i = 8; i < bytes.size(); ++i) {
    for (int value = 0; value < 256; ++value) {
      std::vector<uint8_t> broken = bytes;
      broken[i] = static_cast<uint8_t>(value);
      TracePage walked(broken);
      size_t events = 0;
      while (walked.next()) ASSERT_LT(++events, bytes.size());
    }
  }
}

}  // namespace
}  // namespace kelvane
