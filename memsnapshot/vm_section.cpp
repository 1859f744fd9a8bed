#include <array>
#include <cstdint>
#include <utility>

#include "memsnapshot/json_text.h"
#include "memsnapshot/report_sections.h"
#include "platform/platform.h"
#include "platform/vm_statistics.h"

namespace quorveld {

void appendVmCounters(std::string& report) {
  platform::HostStatistics& host = platform::current().hostStatistics;
  report += "\"VM\" :\n{\n";
  platform::vm_statistics64 vm{};
  if (!host.vmStatistics(&vm)) {
    report += "\"error\" : \"host_statistics64 failed\"\n},\n";
    return;
  }
  const std::array<std::pair<const char*, uint64_t>, 23> counters = {{
      {"page_size", host.pageSizeBytes()},
      {"free_count", vm.free_count},
      {"active_count", vm.active_count},
      {"inactive_count", vm.inactive_count},
      {"wire_count", vm.wire_count},
      {"zero_fill_count", vm.zero_fill_count},
      {"reactivations", vm.reactivations},
      {"faults", vm.faults},
      {"cow_faults", vm.cow_faults},
      {"lookups", vm.lookups},
      {"hits", vm.hits},
      {"purges", vm.purges},
      {"purgeable_count", vm.purgeable_count},
      {"speculative_count", vm.speculative_count},
      {"decompressions", vm.decompressions},
      {"compressions", vm.compressions},
      {"swapins", vm.swapins},
      {"swapouts", vm.swapouts},
      {"compressor_page_count", vm.compressor_page_count},
      {"throttled_count", vm.throttled_count},
      {"external_page_count", vm.external_page_count},
      {"internal_page_count", vm.internal_page_count},
      {"total_uncompressed_pages_in_compressor", vm.total_uncompressed_pages_in_compressor},
  }};
  Separator comma(",");
  for (const auto& [key, pages] : counters) {
    comma.next(report);
    appendFormatted(report, "\"%s\" : %lu", key, static_cast<unsigned long>(pages));
  }
  report += "\n},\n";
}

}  // namespace quorveld
