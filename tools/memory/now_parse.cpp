#include "tools/memory/now_parse.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace quorvelctl {
namespace {

std::string_view take(std::string_view& text, char end) {
  const size_t at = std::min(text.find(end), text.size());
  const std::string_view piece = text.substr(0, at);
  text.remove_prefix(std::min(at + 1, text.size()));
  return piece;
}

std::string_view takeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  const size_t end = std::min(line.find_first_of(" \t"), line.size());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(end);
  return word;
}

uint64_t naturalOf(std::string_view word, int base = 10) {
  uint64_t value = 0;
  std::from_chars(word.data(), word.data() + word.size(), value, base);
  return value;
}

/// Octal escapes of mountinfo, "\040", as the bytes that they stand for.
std::string unescaped(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      bytes += static_cast<char>(naturalOf(text.substr(i + 1, 3), 8));
      i += 3;
    } else {
      bytes += text[i];
    }
  }
  return bytes;
}

bool isInterpreter(std::string_view program) {
  constexpr std::array<std::string_view, 12> kInterpreters = {
      "python", "perl", "ruby", "node", "php", "lua", "bash", "dash", "zsh", "sh", "java", "tclsh"};
  // "python3.11" too: versions follow the name.
  return std::any_of(kInterpreters.begin(), kInterpreters.end(), [&](std::string_view name) {
    return program.starts_with(name) &&
           program.find_first_not_of("0123456789.-", name.size()) == program.npos;
  });
}

}  // namespace

std::optional<uint64_t> lineBytes(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    if (take(line, ':') == key) return naturalOf(takeWord(line)) * 1024;
  }
  return std::nullopt;
}

uint64_t lineNumber(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    if (takeWord(line) == key) return naturalOf(takeWord(line));
  }
  return 0;
}

uint64_t pagesInCpuLists(std::string_view zoneinfo) {
  uint64_t pages = 0;
  while (!zoneinfo.empty()) {
    std::string_view line = take(zoneinfo, '\n');
    if (takeWord(line) == "count:") pages += naturalOf(takeWord(line));
  }
  return pages;
}

uint64_t pagesOfTcp(std::string_view sockstat) {
  while (!sockstat.empty()) {
    std::string_view line = take(sockstat, '\n');
    if (takeWord(line) != "TCP:") continue;
    while (!line.empty()) {
      if (takeWord(line) == "mem") return naturalOf(takeWord(line));
    }
  }
  return 0;
}

uint64_t bytesOfZram(std::string_view mmStat) {
  takeWord(mmStat);
  takeWord(mmStat);
  return naturalOf(takeWord(mmStat));
}

std::string cgroupPath(std::string_view text) {
  std::string found;
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    const std::string_view hierarchy = take(line, ':');
    std::string_view controllers = take(line, ':');
    const bool unified = hierarchy == "0" && controllers.empty();
    if (unified && (line != "/" || found.empty())) found = line;
    while (!controllers.empty()) {
      if (take(controllers, ',') == "memory" && found.size() <= 1) found = line;
    }
  }
  return found;
}

std::vector<std::string> argumentsOf(std::string_view cmdline) {
  std::vector<std::string> arguments;
  while (!cmdline.empty()) arguments.emplace_back(take(cmdline, '\0'));
  return arguments;
}

std::string nameOfProgram(const std::string& program, const std::vector<std::string>& arguments) {
  if (!isInterpreter(program)) return program;
  for (size_t i = 1; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "-c" || argument == "-e") break;  // the program is an argument itself
    const bool names = (argument == "-m" || argument == "-jar") && i + 1 < arguments.size();
    if (names) return arguments[i + 1] + " (" + program + ")";
    if (argument == "-W" || argument == "-X" || argument == "-cp") ++i;  // these take a value
    if (argument.empty() || argument[0] == '-') continue;
    const std::string script = argument.substr(argument.find_last_of('/') + 1);
    return (script.empty() ? argument : script) + " (" + program + ")";
  }
  return program;
}

std::vector<TmpfsMount> parseTmpfsMounts(std::string_view mountinfo) {
  std::vector<TmpfsMount> mounts;
  while (!mountinfo.empty()) {
    std::string_view line = take(mountinfo, '\n');
    takeWord(line);  // its number, and its parent's
    takeWord(line);
    const std::string_view device = takeWord(line);
    takeWord(line);  // the part of the file system that is mounted
    const std::string_view path = takeWord(line);
    const size_t separator = line.find(" - ");
    if (separator == std::string_view::npos || path.empty()) continue;
    line.remove_prefix(separator + 3);
    if (takeWord(line) == "tmpfs") mounts.push_back({unescaped(path), std::string(device)});
  }
  return mounts;
}

std::vector<SharedMapping> parseSharedMappings(std::string_view maps, const std::vector<TmpfsMount>& mounts) {
  std::vector<SharedMapping> mappings;
  while (!maps.empty()) {
    std::string_view line = take(maps, '\n');
    SharedMapping mapping;
    mapping.range = takeWord(line);
    takeWord(line);  // what is allowed, and the place in the file
    takeWord(line);
    std::string_view device = takeWord(line);
    const uint64_t majorNumber = naturalOf(take(device, ':'), 16);
    mapping.device = std::to_string(majorNumber) + ":" + std::to_string(naturalOf(device, 16));
    mapping.inode = naturalOf(takeWord(line));
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    mapping.path = line;
    const bool looksShared =
        line.starts_with("/memfd:") || line.starts_with("/SYSV") || line.starts_with("/dev/zero");
    const bool onTmpfs = std::any_of(mounts.begin(), mounts.end(),
                                     [&](const TmpfsMount& mount) { return mount.device == mapping.device; });
    if (mapping.inode != 0 && (looksShared || onTmpfs)) mappings.push_back(std::move(mapping));
  }
  return mappings;
}

std::vector<SysvSegment> parseSysvSegments(std::string_view text) {
  std::vector<SysvSegment> segments;
  take(text, '\n');  // the heading
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    std::vector<uint64_t> columns;
    for (std::string_view word = takeWord(line); !word.empty(); word = takeWord(line))
      columns.push_back(naturalOf(word));
    // key shmid perms size cpid lpid nattch uid gid cuid cgid atime dtime ctime rss swap
    if (columns.size() < 16) continue;
    segments.push_back(
        {columns[1], columns[1], columns[14] + columns[15], columns[6], static_cast<int32_t>(columns[4])});
  }
  return segments;
}

}  // namespace quorvelctl
