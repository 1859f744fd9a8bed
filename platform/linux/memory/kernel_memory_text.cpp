#include "platform/linux/memory/kernel_memory_text.h"

#include <algorithm>
#include <charconv>

namespace quorveld::linux_platform {

namespace {

bool isSeparator(char c) {
  return c == ' ' || c == '\t';
}

/// Takes the text up to `end` off the front of `text`, and `end` with it.
std::string_view take(std::string_view& text, char end) {
  const size_t at = std::min(text.find(end), text.size());
  const std::string_view piece = text.substr(0, at);
  text.remove_prefix(std::min(at + 1, text.size()));
  return piece;
}

std::string_view takeWord(std::string_view& line) {
  const auto begin = std::find_if_not(line.begin(), line.end(), isSeparator);
  const auto end = std::find_if(begin, line.end(), isSeparator);
  line = {end, line.end()};
  return {begin, end};
}

std::optional<uint64_t> number(std::string_view word) {
  uint64_t value = 0;
  const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || stop != word.data() + word.size() || word.empty()) return std::nullopt;
  return value;
}

std::optional<uint64_t> takeNumber(std::string_view& line) {
  return number(takeWord(line));
}

/// `a` × `b`, or the largest number where that is none: a text can claim anything.
uint64_t product(uint64_t a, uint64_t b) {
  uint64_t value = 0;
  return __builtin_mul_overflow(a, b, &value) ? UINT64_MAX : value;
}

void addTo(uint64_t& sum, uint64_t value) {
  if (__builtin_add_overflow(sum, value, &sum)) sum = UINT64_MAX;
}

}  // namespace

std::optional<std::vector<SlabCache>> parseSlabInfo(std::string_view text, uint64_t pageSizeBytes) {
  if (!text.starts_with("slabinfo - version: 2.")) return std::nullopt;
  std::vector<SlabCache> caches;
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    std::string_view slabData = line.substr(std::min(line.find(": slabdata"), line.size()));
    const std::string_view name = takeWord(line);
    const auto active = takeNumber(line);
    const auto objects = takeNumber(line);
    const auto objectBytes = takeNumber(line);
    const auto perSlab = takeNumber(line);
    const auto pagesPerSlab = takeNumber(line);
    takeWord(slabData);
    takeWord(slabData);
    const auto activeSlabs = takeNumber(slabData);
    const auto slabs = takeNumber(slabData);
    if (name.empty() || !active || !objects || !objectBytes || !perSlab || !pagesPerSlab || !activeSlabs ||
        !slabs) {
      continue;
    }
    caches.push_back(
        {std::string(name), *objects, *objectBytes, product(product(*slabs, *pagesPerSlab), pageSizeBytes)});
  }
  return caches;
}

std::optional<uint64_t> memInfoBytes(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    if (take(line, ':') != key) continue;
    const auto kilobytes = takeNumber(line);
    return kilobytes ? std::optional(product(*kilobytes, 1024)) : std::nullopt;
  }
  return std::nullopt;
}

std::vector<NamedSize> parseModules(std::string_view text) {
  std::vector<NamedSize> modules;
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    const std::string_view name = takeWord(line);
    const auto size = takeNumber(line);
    if (!name.empty() && size) modules.push_back({std::string(name), *size});
  }
  return modules;
}

void VmallocCallers::add(std::string_view lines) {
  while (!lines.empty()) {
    std::string_view line = take(lines, '\n');
    takeWord(line);  // the address range
    takeWord(line);  // its length, guard page included
    std::string_view caller = takeWord(line);
    caller = caller.substr(0, caller.find('+'));
    uint64_t pages = 0;
    for (std::string_view word = takeWord(line); !word.empty(); word = takeWord(line)) {
      constexpr std::string_view kPages = "pages=";
      if (word.starts_with(kPages)) pages = number(word.substr(kPages.size())).value_or(0);
    }
    if (caller.empty() || pages == 0) continue;
    auto entry = bytesByCaller_.find(caller);
    if (entry == bytesByCaller_.end()) entry = bytesByCaller_.emplace(std::string(caller), 0).first;
    addTo(entry->second, product(pages, pageSizeBytes_));
  }
}

std::vector<NamedSize> VmallocCallers::largestFirst() const {
  std::vector<NamedSize> callers;
  for (const auto& [caller, bytes] : bytesByCaller_) callers.push_back({caller, bytes});
  std::stable_sort(callers.begin(), callers.end(),
                   [](const NamedSize& a, const NamedSize& b) { return a.sizeBytes > b.sizeBytes; });
  return callers;
}

ZonePages parseZoneInfo(std::string_view text) {
  ZonePages total;
  bool isDma = false;
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    std::string_view words = line;
    const std::string_view first = takeWord(words);
    if (first == "Node") {
      isDma = line.find("zone") != std::string_view::npos && line.find("DMA") != std::string_view::npos;
    } else if (first == "present") {
      addTo(total.present, takeNumber(words).value_or(0));
    } else if (first == "managed" && isDma) {
      addTo(total.dma, takeNumber(words).value_or(0));
    } else if (first == "count:") {
      addTo(total.cpuLists, takeNumber(words).value_or(0));
    }
  }
  return total;
}

uint64_t parseTcpPages(std::string_view text) {
  while (!text.empty()) {
    std::string_view line = take(text, '\n');
    if (takeWord(line) != "TCP:") continue;
    for (std::string_view word = takeWord(line); !word.empty(); word = takeWord(line)) {
      if (word == "mem") return takeNumber(line).value_or(0);
    }
  }
  return 0;
}

uint64_t parseZramBytes(std::string_view text) {
  std::string_view line = take(text, '\n');
  takeWord(line);  // the data's size, and what it is compressed to
  takeWord(line);
  return takeNumber(line).value_or(0);
}

}  // namespace quorveld::linux_platform
