#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "base/text.h"
#include "memsnapshot/json_text.h"
#include "memsnapshot/names.h"
#include "memsnapshot/report_sections.h"
#include "platform/kernel_memory.h"
#include "platform/platform.h"
#include "platform/vm_statistics.h"

namespace quorveld {

namespace {

using platform::ExtensionMap;
using platform::KernelMemoryInfo;
using platform::memory_info_site;

constexpr uint64_t kSiteKindMask = 0xFF;
constexpr uint64_t kSiteWiredMask = 0x300;
constexpr uint64_t kSiteWired = 0x100;
enum SiteKind : uint64_t { kTag = 0, kExtension = 1, kKernelSite = 2, kCounter = 3 };

void appendZones(std::string& report, const KernelMemoryInfo& memory, uint64_t pageSize) {
  report += "\"Zones\" :\n[\n";
  Separator comma(",\n");
  const bool paired = memory.zoneNames.size() == memory.zoneInfos.size();
  for (size_t i = 0; paired && i < memory.zoneNames.size(); ++i) {
    const char* name = memory.zoneNames[i].name;
    comma.next(report);
    report += "{ \"Name\" : \"";
    appendEscaped(report, std::string_view(name, strnlen(name, sizeof(memory.zoneNames[i].name))));
    appendFormatted(report, "\", \"Pages\" : %llu }",
                    static_cast<unsigned long long>(memory.zoneInfos[i].current_size / pageSize));
  }
  report += "],\n";
}

std::string siteName(const memory_info_site& site, const ExtensionMap& extensions) {
  switch (site.flags & kSiteKindMask) {
    case kTag:
      return wiredTagName(site.site);
    case kExtension: {
      const auto extension = extensions.find(site.site);
      return extension == extensions.end() ? "(unknown kmod)" : extension->second;
    }
    case kKernelSite: {
      const auto symbol = platform::current().kernelMemory.symbol(site.site);
      return symbol ? *symbol : formatted("site 0x%llx", static_cast<unsigned long long>(site.site));
    }
    case kCounter:
      return wiredCounterName(site.site);
    default:
      return "";
  }
}

void appendWired(std::string& report, const KernelMemoryInfo& memory, uint64_t pageSize) {
  report += "\"Wired\" :\n[\n";
  const ExtensionMap extensions = platform::current().kernelMemory.loadedExtensions();
  Separator comma(",\n");
  for (const memory_info_site& site : memory.sites) {
    if (site.size == 0 || (site.flags & kSiteWiredMask) != kSiteWired) continue;
    comma.next(report);
    report += "{ \"";
    appendEscaped(report, siteName(site, extensions));
    appendFormatted(report, "\" : %llu }", static_cast<unsigned long long>(site.size / pageSize));
  }
  report += "]\n";
}

}  // namespace

bool appendKernelMemory(std::string& report) {
  const std::optional<KernelMemoryInfo> memory = platform::current().kernelMemory.memoryInfo();
  if (!memory) return false;
  const uint64_t pageSize = platform::current().hostStatistics.pageSizeBytes();
  appendZones(report, *memory, pageSize);
  appendWired(report, *memory, pageSize);
  return true;
}

}  // namespace quorveld
