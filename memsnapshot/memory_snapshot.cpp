#include "memsnapshot/memory_snapshot.h"

#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/log.h"
#include "base/paths.h"
#include "base/report_folder.h"
#include "base/wall_time.h"
#include "memsnapshot/json_text.h"
#include "memsnapshot/report_sections.h"
#include "platform/clock.h"
#include "platform/device.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

/// Reserved at once so that the report never moves while it grows: address space, of which only what is
/// written becomes memory.
constexpr size_t kInitialCapacity = 52'428'800;

/// Readers of the first line expect it within 100 bytes: a longer one is cut off there.
constexpr size_t kMaxFirstLineBytes = 99;

/// More reports than this of one local second are not kept.
constexpr int kMaxReportsOfASecond = 100;

/// What stays the same for as long as the daemon lives.
struct ReportOrigin {
  std::string osVersion;
  std::string firstHeaderLine;
  std::string machine;
};

std::string osVersionText(const platform::OSVersion& version) {
  std::string product = version.productName.value_or("???");
  constexpr std::string_view kLongName = "Orvane OS";
  for (size_t at = 0; (at = product.find(kLongName, at)) != std::string::npos;) {
    product.replace(at, kLongName.size(), "Orvos");
  }
  return product + " " + version.productVersion.value_or("???") + " (" +
         version.buildVersion.value_or("???") + ")";
}

std::string escaped(const std::string& bytes) {
  std::string text;
  appendEscaped(text, bytes);
  return text;
}

/// The length of the longest part of `text` from its beginning that is no longer than `maxBytes` and ends
/// neither inside a UTF-8 character nor inside an escape.
size_t wholeCharacters(std::string_view text, size_t maxBytes) {
  size_t length = 0;
  while (length < text.size()) {
    size_t next = length + 1;
    if (text[length] == '\\') {
      next += text.substr(next, 1) == "u" ? 5 : 1;
    } else {
      while (next < text.size() && (static_cast<uint8_t>(text[next]) & 0xC0) == 0x80) ++next;
    }
    if (next > maxBytes) break;
    length = next;
  }
  return length;
}

const ReportOrigin& reportOrigin() {
  static const ReportOrigin origin = [] {
    platform::Device& device = platform::current().device;
    const std::string version = escaped(osVersionText(device.osVersion()));
    const std::string line = "{\"bug_type\":\"152\",\"os_version\":\"" + version + "\"}\n";
    return ReportOrigin{version, line.substr(0, wholeCharacters(line, kMaxFirstLineBytes)),
                        escaped(device.machine())};
  }();
  return origin;
}

/// The whole report; empty when something that it must contain can't be had.
std::string reportText(const std::string& date) {
  const ReportOrigin& origin = reportOrigin();
  std::string report;
  try {
    report.reserve(kInitialCapacity);
  } catch (const std::bad_alloc&) {
    // A system that promises no more memory than it has: the text grows as it needs to.
    quorvelLog().debug("Memory snapshot: %zu bytes can't be reserved at once", kInitialCapacity);
  }
  report += origin.firstHeaderLine;
  report += "{\n\"Model\" : \"" + origin.machine + "\",\n\"Timestamp\" : \"" + date +
            "\",\n\"OSVersion\" : \"" + origin.osVersion + "\"\n}\n";
  report += "{\n";
  appendVmCounters(report);
  if (!appendProcesses(report) || !appendKernelMemory(report)) return {};
  report += "}\n";
  return report;
}

/// The file's name. A second that has come before, by a clock that went back, gets a number behind it; the
/// last one's, which is taken, when all are.
std::string freeName(const std::string& date) {
  const std::string prefix = std::string(kMemoryReports.finished.prefix) + date;
  std::string name = prefix + ".ips";
  for (int number = 2; number <= kMaxReportsOfASecond; ++number) {
    const std::string path = std::string(kMemoryReportDirectory) + "//" + name;
    if (platform::current().files.kind(path) == platform::EntryKind::missing) break;
    name = prefix + "-" + std::to_string(number) + ".ips";
  }
  return name;
}

/// `error`: why there is no room for the report, if there is none.
void writeReport(std::error_code error) {
  platform::Files& files = platform::current().files;
  const std::string date = reportDate(platform::current().clock.wallTime());
  const std::string name = freeName(date);
  const std::string workingPath = std::string(kCacheDirectory) + "//" + name;
  const std::string finalPath = std::string(kMemoryReportDirectory) + "//" + name;

  auto file = error ? nullptr : files.createProtected(workingPath, error);
  if (!file) {
    systemLog("Could not create file - won't take a memory snapshot: %s %s", workingPath.c_str(),
              error.message().c_str());
    return;
  }
  const std::string report = reportText(date);
  if (report.empty()) {
    files.remove(workingPath);  // why figures are missing has been said by whoever refused them
    return;
  }
  const auto sayIfNotKept = [finalPath](std::error_code failure) {
    if (!failure) return;
    quorvelLog()
        .about({.kind = platform::LogEventKind::reportLost})
        .standard("Memory snapshot not kept: %s: %s", finalPath.c_str(), failure.message().c_str());
  };
  if ((error = file->write(report))) {
    files.remove(workingPath);
    return sayIfNotKept(error);
  }
  files.finish(std::move(file), workingPath, finalPath, sayIfNotKept);
}

}  // namespace

void MemorySnapshots::take_memory_snapshot() {
  if (!underWay_.expired()) {
    quorvelLog()
        .about({.kind = platform::LogEventKind::reportLost})
        .standard("Memory snapshot left out: the last one is still being made");
    return;
  }
  if (!queue_) {
    queue_ = platform::current().queues.create("com.corvix.quorvel.memsnapshot", platform::QoSClass::utility);
  }
  auto underWay = std::make_shared<UnderWay>();
  underWay_ = underWay;
  queue_->async([underWay = std::move(underWay), &workQueue = workQueue_] {
    const RoomForReport room = makeRoomForReport(kMemoryReports);
    writeReport(room.error);
    if (room.removed != 0) {
      workQueue.async([removed = room.removed] { countRemovedReports(kMemoryReports, removed); });
    }
  });
}

}  // namespace quorveld
