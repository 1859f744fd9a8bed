#include "kelvane/base/proc_text.h"

#include <charconv>

namespace kelvane {
namespace {

/// Takes the part of `text` before `separator` off it; all of it if there is no separator.
std::string_view takeUntil(std::string_view& text, char separator) {
  size_t end = text.find(separator);
  std::string_view part = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return part;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

template <typename Number>
std::optional<Number> parseNumber(std::string_view text, int base = 10) {
  Number number{};
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

/// The value of `name`=value in os-release, without its quotes.
std::string osReleaseValue(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    std::string_view line = takeUntil(text, '\n');
    if (takeUntil(line, '=') != name) continue;
    line = trimmed(line);
    if (line.size() >= 2 && (line.front() == '"' || line.front() == '\'') && line.back() == line.front()) {
      line = line.substr(1, line.size() - 2);
    }
    return std::string(line);
  }
  return {};
}

}  // namespace

std::optional<ProcStat> parseStat(std::string_view text) {
  // The command may hold blanks and parentheses itself: it ends at the last one.
  size_t open = text.find('(');
  size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  ProcStat stat;
  stat.comm = text.substr(open + 1, close - open - 1);
  std::string_view rest = trimmed(text.substr(close + 1));
  for (int field = 3; !rest.empty() && field <= 39; field++) {
    std::string_view part = takeUntil(rest, ' ');
    if (field == 3) {
      if (part.size() != 1) return std::nullopt;
      stat.state = part[0];
    }
    uint64_t number = parseNumber<uint64_t>(part).value_or(0);
    if (field == 4) stat.parent = static_cast<pid_t>(number);
    if (field == 6) stat.session = static_cast<pid_t>(number);
    if (field == 9) stat.flags = number;
    if (field == 12) stat.majorFaults = number;
    if (field == 14) stat.userTicks = number;
    if (field == 15) stat.systemTicks = number;
    if (field == 16) stat.childUserTicks = number;
    if (field == 17) stat.childSystemTicks = number;
    if (field == 22) stat.startTicks = number;
    if (field == 18) stat.priority = parseNumber<int>(part).value_or(0);
    if (field == 28) stat.startStack = number;
    if (field == 39) stat.cpu = static_cast<int>(number);
  }
  if (stat.state == '?') return std::nullopt;
  return stat;
}

uint64_t parseStatusNumber(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    std::string_view line = takeUntil(text, '\n');
    if (takeUntil(line, ':') == name) return parseNumber<uint64_t>(trimmed(line)).value_or(0);
  }
  return 0;
}

pid_t parseInnerId(std::string_view text) {
  while (!text.empty()) {
    std::string_view line = takeUntil(text, '\n');
    if (takeUntil(line, ':') != "NSpid") continue;
    line = trimmed(line);  // from the reader's namespace inwards
    const size_t last = line.rfind('\t');
    return last == std::string_view::npos ? 0 : parseNumber<pid_t>(line.substr(last + 1)).value_or(0);
  }
  return 0;
}

int64_t parseClockOffset(std::string_view text, std::string_view clock) {
  while (!text.empty()) {
    std::string_view line = trimmed(takeUntil(text, '\n'));
    if (takeUntil(line, ' ') != clock) continue;
    line = trimmed(line);
    auto seconds = parseNumber<int64_t>(takeUntil(line, ' '));
    auto nanoseconds = parseNumber<int64_t>(trimmed(line));
    int64_t offset = 0;
    const bool fits = seconds && nanoseconds &&
                      !__builtin_mul_overflow(*seconds, int64_t{1'000'000'000}, &offset) &&
                      !__builtin_add_overflow(offset, *nanoseconds, &offset);
    return fits ? offset : 0;
  }
  return 0;
}

std::optional<SystemCall> parseSyscall(std::string_view text) {
  text = trimmed(text);
  auto number = parseNumber<int64_t>(takeUntil(text, ' '));
  if (!number) return std::nullopt;
  SystemCall call{*number, {}};
  for (uint64_t& argument : call.arguments) {
    std::string_view part = takeUntil(text, ' ');
    if (part.starts_with("0x")) argument = parseNumber<uint64_t>(part.substr(2), 16).value_or(0);
  }
  return call;
}

std::vector<std::string> parseKernelStack(std::string_view text, size_t maxFrames) {
  std::vector<std::string> frames;
  while (!text.empty() && frames.size() < maxFrames) {
    std::string_view line = takeUntil(text, '\n');
    size_t address = line.find("] ");
    if (line.empty() || line[0] != '[' || address == std::string_view::npos) continue;
    std::string_view name = trimmed(line.substr(address + 2));
    if (!name.empty()) frames.emplace_back(name);
  }
  return frames;
}

std::optional<MapsLine> parseMapsLine(std::string_view line) {
  auto start = parseNumber<uint64_t>(takeUntil(line, '-'), 16);
  auto end = parseNumber<uint64_t>(takeUntil(line, ' '), 16);
  std::string_view permissions = takeUntil(line, ' ');
  auto offset = parseNumber<uint64_t>(takeUntil(line, ' '), 16);
  takeUntil(line, ' ');  // device
  auto inode = parseNumber<uint64_t>(takeUntil(line, ' '));
  if (!start || !end || *start >= *end || permissions.size() < 4 || !offset || !inode) return std::nullopt;
  size_t path = line.find_first_not_of(' ');
  return MapsLine{*start,
                  *end,
                  *offset,
                  *inode,
                  permissions[2] == 'x',
                  path == std::string_view::npos ? std::string_view() : line.substr(path)};
}

std::string unescapePath(std::string_view path) {
  constexpr std::string_view kNewline = "\\012";
  std::string result;
  while (!path.empty()) {
    bool newline = path.starts_with(kNewline);
    result += newline ? '\n' : path[0];
    path.remove_prefix(newline ? kNewline.size() : 1);
  }
  return result;
}

std::string parseOsReleaseName(std::string_view text) {
  std::string name = osReleaseValue(text, "PRETTY_NAME");
  return name.empty() ? osReleaseValue(text, "NAME") : name;
}

}  // namespace kelvane
