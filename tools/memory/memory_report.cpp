#include "tools/memory/memory_report.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <tuple>

namespace quorvelctl {

using Json = nlohmann::json;

namespace {

constexpr int kMaxDepth = 8;  // a report nests four deep
constexpr uint64_t kMaxPageSizeBytes = uint64_t{1} << 20;
constexpr std::string_view kCounterPrefix = "VM_KERN_COUNT_";
/// Figures that are read one after the other don't differ by more than this part.
constexpr uint64_t kOffPart = 100;

/// Entries of wired memory that aren't the kernel's own, and what they mean.
constexpr std::array<std::pair<std::string_view, const char*>, 7> kUses = {{
    {"VM_KERN_MEMORY_100", kSharedMemory},
    {"VM_KERN_MEMORY_101", kHugePages},
    {"VM_KERN_MEMORY_102", kZram},
    {"VM_KERN_MEMORY_103", kTcpBuffers},
    {"VM_KERN_MEMORY_104", kCpuLists},
    {"VM_KERN_MEMORY_105", kBalloon},
    {"VM_KERN_MEMORY_MLOCK", kLocked},
}};
constexpr std::string_view kSwappedCounter = "VM_KERN_COUNT_100";

/// What the kernel's counts for each CPU may lag behind.
constexpr uint64_t kSmallestExcessBytes = uint64_t{8} << 20;

struct VmCounter {
  const char* name;
  bool countsPages;
};

constexpr std::array<VmCounter, 22> kVmCounters = {{
    {"free_count", true},
    {"active_count", true},
    {"inactive_count", true},
    {"wire_count", true},
    {"zero_fill_count", false},
    {"reactivations", false},
    {"faults", false},
    {"cow_faults", false},
    {"lookups", false},
    {"hits", false},
    {"purges", false},
    {"purgeable_count", true},
    {"speculative_count", true},
    {"decompressions", false},
    {"compressions", false},
    {"swapins", false},
    {"swapouts", false},
    {"compressor_page_count", true},
    {"throttled_count", true},
    {"external_page_count", true},
    {"internal_page_count", true},
    {"total_uncompressed_pages_in_compressor", true},
}};

/// Says what is broken; caught where the text is parsed.
class Broken : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

const Json& member(const Json& object, const char* key, Json::value_t type) {
  const auto found = object.is_object() ? object.find(key) : object.end();
  if (!object.is_object() || found == object.end() || found->type() != type) {
    throw Broken(std::string("its ") + key + " is missing or broken");
  }
  return *found;
}

std::string textOf(const Json& object, const char* key) {
  return member(object, key, Json::value_t::string).get<std::string>();
}

uint64_t natural(const Json& value, const std::string& what) {
  if (!value.is_number_unsigned()) throw Broken(what + " is no natural number");
  return value.get<uint64_t>();
}

/// Turns pages into bytes, for one section: what it claims in all stays below `kMaxMemoryBytes`.
class Pages {
 public:
  Pages(const char* section, uint64_t pageSizeBytes) : section_(section), pageSizeBytes_(pageSizeBytes) {}

  uint64_t bytes(const Json& value) {
    const uint64_t pages = natural(value, std::string("a size in its ") + section_);
    uint64_t bytes = 0;
    if (__builtin_mul_overflow(pages, pageSizeBytes_, &bytes) || bytes > kMaxMemoryBytes - sumBytes_) {
      throw Broken(std::string("its ") + section_ + " claim more memory than there can be");
    }
    sumBytes_ += bytes;
    return bytes;
  }

 private:
  const char* section_;
  uint64_t pageSizeBytes_;
  uint64_t sumBytes_ = 0;
};

void readCounters(const Json& vm, MemoryReport& report) {
  if (vm.contains("error")) {
    report.vmError = textOf(vm, "error");
    return;
  }
  for (const VmCounter& counter : kVmCounters) {
    const Json& value = member(vm, counter.name, Json::value_t::number_unsigned);
    if (counter.countsPages) Pages("counters", kMaxPageSizeBytes).bytes(value);
    report.counters.emplace_back(counter.name, value.get<uint64_t>());
  }
  report.pageSizeBytes = natural(member(vm, "page_size", Json::value_t::number_unsigned), "its page size");
  if (report.pageSizeBytes == 0 || report.pageSizeBytes > kMaxPageSizeBytes) {
    throw Broken("its page size can't be");
  }
}

void readProcesses(const Json& entries, MemoryReport& report) {
  Pages pages("processes", report.pageSizeBytes);
  for (const Json& entry : entries) {
    MemoryProcess process;
    process.name = textOf(entry, "ProcessName");
    const Json* priority = entry.contains("Priority") ? &entry["Priority"] : nullptr;
    if (!priority || !priority->is_number_integer()) throw Broken("a priority is missing or broken");
    process.priority = priority->get<int64_t>();
    process.footprintBytes = pages.bytes(member(entry, "Footprint", Json::value_t::number_unsigned));
    process.dirty = textOf(entry, "Dirty");
    if (entry.contains("Assertions")) {
      for (const Json& name : member(entry, "Assertions", Json::value_t::array)) {
        process.assertions.push_back(name.get<std::string>());
      }
    }
    report.processes.push_back(std::move(process));
  }
  std::sort(report.processes.begin(), report.processes.end(), [](const auto& a, const auto& b) {
    return std::tie(b.footprintBytes, a.name, a.priority) < std::tie(a.footprintBytes, b.name, b.priority);
  });
}

void sortBySize(std::vector<NamedBytes>& entries) {
  std::sort(entries.begin(), entries.end(), [](const NamedBytes& a, const NamedBytes& b) {
    return std::tie(b.bytes, a.name) < std::tie(a.bytes, b.name);
  });
}

void readZones(const Json& entries, MemoryReport& report) {
  Pages pages("zones", report.pageSizeBytes);
  for (const Json& entry : entries) {
    const Json& size = member(entry, "Pages", Json::value_t::number_unsigned);
    report.zones.push_back({textOf(entry, "Name"), pages.bytes(size)});
  }
  sortBySize(report.zones);
}

void readWired(const Json& entries, MemoryReport& report) {
  Pages pages("wired memory", report.pageSizeBytes);
  for (const Json& entry : entries) {
    if (!entry.is_object() || entry.size() != 1) throw Broken("an entry of its wired memory is broken");
    const std::string& name = entry.begin().key();
    const uint64_t bytes = pages.bytes(entry.begin().value());
    const auto use =
        std::find_if(kUses.begin(), kUses.end(), [&](const auto& known) { return known.first == name; });
    if (use != kUses.end()) {
      report.uses.push_back({use->second, bytes});
    } else if (name.starts_with(kCounterPrefix)) {
      report.totals.push_back({name == kSwappedCounter ? kSwapped : name, bytes});
    } else {
      report.consumers.push_back({name, bytes});
    }
  }
  sortBySize(report.uses);
  sortBySize(report.consumers);
  sortBySize(report.totals);
}

/// Whether brackets outside of texts are nested deeper than a report's.
bool isTooDeep(std::string_view text) {
  int depth = 0;
  bool inText = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') inText = !inText;
    if (inText && c == '\\') ++i;
    if (inText) continue;
    if (c == '[' || c == '{') ++depth;
    if (c == ']' || c == '}') --depth;
    if (depth > kMaxDepth) return true;
  }
  return false;
}

Json parseBounded(std::string_view text) {
  if (isTooDeep(text)) throw Broken("it is nested too deeply");
  return Json::parse(text);
}

/// The report's three JSON texts: a first line, a header, the body. The first line may be cut off, line break
/// and all, when its texts are long; no text holds a line break as such, so the header's first is the mark.
MemoryReport read(std::string_view text) {
  if (!text.starts_with("{\"bug_type\":\"152\"")) throw Broken("it doesn't begin like one");
  constexpr std::string_view kBodyMark = "\n}\n{\n";
  const size_t header = text.find("{\n");
  const size_t headerEnd = header == std::string_view::npos ? header : text.find(kBodyMark, header);
  if (headerEnd == std::string_view::npos) throw Broken("its header is cut off");
  const Json head = parseBounded(text.substr(header, headerEnd + 2 - header));
  const Json body = parseBounded(text.substr(headerEnd + 3));

  MemoryReport report;
  report.osVersion = textOf(head, "OSVersion");
  report.model = textOf(head, "Model");
  report.timestamp = textOf(head, "Timestamp");
  readCounters(member(body, "VM", Json::value_t::object), report);
  readProcesses(member(body, "Processes", Json::value_t::array), report);
  readZones(member(body, "Zones", Json::value_t::array), report);
  readWired(member(body, "Wired", Json::value_t::array), report);
  return report;
}

std::optional<uint64_t> bytesNamed(const std::vector<NamedBytes>& entries, std::string_view name) {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const NamedBytes& entry) { return entry.name == name; });
  return found == entries.end() ? std::nullopt : std::optional(found->bytes);
}

}  // namespace

std::optional<uint64_t> MemoryReport::counter(std::string_view name) const {
  const auto found =
      std::find_if(counters.begin(), counters.end(), [&](const auto& pair) { return pair.first == name; });
  return found == counters.end() ? std::nullopt : std::optional(found->second);
}

bool countsPages(std::string_view counter) {
  return std::any_of(kVmCounters.begin(), kVmCounters.end(),
                     [&](const VmCounter& known) { return known.countsPages && known.name == counter; });
}

uint64_t sumOf(const std::vector<NamedBytes>& entries) {
  uint64_t sum = 0;
  for (const NamedBytes& entry : entries) sum += entry.bytes;
  return sum;
}

std::optional<MemoryReport> parseMemoryReport(std::string_view text, std::string& error) {
  try {
    return read(text);
  } catch (const Broken& problem) {
    error = problem.what();
  } catch (const Json::exception& problem) {
    error = problem.what();
  }
  return std::nullopt;
}

std::optional<MemoryAccount> accountOf(const MemoryReport& report) {
  const auto total = bytesNamed(report.totals, "VM_KERN_COUNT_MANAGED");
  const auto counted = [&](const char* name) {
    return report.counter(name).value_or(0) * report.pageSizeBytes;
  };
  const auto wired = [&](const char* name) { return bytesNamed(report.consumers, name).value_or(0); };
  const auto use = [&](const char* name) {
    return NamedBytes{name, bytesNamed(report.uses, name).value_or(0)};
  };
  if (!total || !report.counter("free_count")) return std::nullopt;
  MemoryAccount account{*total, {}, 0};
  // Kernel stacks, modules and call sites are parts of the kernel's mappings and aren't counted twice.
  const uint64_t internal = counted("internal_page_count");
  const uint64_t shared = bytesNamed(report.uses, kSharedMemory).value_or(0);
  const bool told = shared != 0 && shared <= internal;
  account.parts = {
      {"free", counted("free_count")},
      told ? NamedBytes{"of processes alone", internal - shared}
           : NamedBytes{"of processes, shared memory included", internal},
      {kSharedMemory, told ? shared : 0},
      use(kHugePages),
      use(kZram),
      use(kTcpBuffers),
      use(kCpuLists),
      use(kBalloon),
      use(kInPipes),
      {"file cache", counted("external_page_count")},
      {"compressed swap (zswap)", counted("compressor_page_count")},
      {"kernel zones", wired("VM_KERN_MEMORY_ZONE")},
      {"kernel mappings: stacks, modules, call sites",
       bytesNamed(report.totals, "VM_KERN_COUNT_MAP_KERNEL").value_or(0)},
      {"page tables", wired("VM_KERN_MEMORY_PTE") + wired("VM_KERN_MEMORY_PMAP")},
      {"per-CPU data", wired("VM_KERN_MEMORY_CPU")},
  };
  sortBySize(account.parts);
  account.unaccountedBytes = static_cast<int64_t>(*total) - static_cast<int64_t>(sumOf(account.parts));
  return account;
}

bool MemoryAccount::isOff() const {
  return static_cast<uint64_t>(std::abs(unaccountedBytes)) > totalBytes / kOffPart;
}

std::optional<uint64_t> processesBytes(const MemoryReport& report) {
  const auto shared = bytesNamed(report.uses, kSharedMemory);
  const auto internal = report.counter("internal_page_count");
  if (!shared || !internal) return std::nullopt;
  const uint64_t internalBytes = *internal * report.pageSizeBytes;
  return internalBytes - std::min(internalBytes, *shared) + bytesNamed(report.uses, kHugePages).value_or(0) +
         bytesNamed(report.totals, kSwapped).value_or(0);
}

bool hasUpperBounds(const MemoryReport& report) {
  const auto available = processesBytes(report);
  if (!available) return false;
  uint64_t claimed = 0;
  for (const MemoryProcess& process : report.processes) claimed += process.footprintBytes;
  // Shared memory that is swapped out is among `available`, and figures move while they are read.
  return claimed > *available + *available / kOffPart + kSmallestExcessBytes;
}

}  // namespace quorvelctl
