#include "base/report_folder.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/settings.h"
#include "platform/analytics.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

using platform::FileInfo;

/// A file system with less than this part of it free is for others to fill.
constexpr uint64_t kLeastFreePart = 20;

/// How the platform names a copy that isn't whole: where the folders of unfinished and finished reports are
/// on different mounts, as under the packaged unit, a move is a copy.
constexpr std::string_view kPartialCopyPrefix = ".quorveld-";

std::vector<FileInfo> reportsIn(const ReportFolder& folder) {
  std::vector<FileInfo> reports = platform::current().files.regularFiles(std::string(folder.directory));
  std::erase_if(reports, [&](const FileInfo& file) {
    return !file.name.starts_with(folder.prefix) || !file.name.ends_with(folder.suffix);
  });
  return reports;
}

std::string pathOf(const ReportFolder& folder, const FileInfo& file) {
  return std::string(folder.directory) + "/" + file.name;
}

/// How many those were.
uint64_t removeOldReports(const ReportFolder& folder) {
  std::vector<FileInfo> reports = reportsIn(folder);
  std::sort(reports.begin(), reports.end(),
            [](const FileInfo& left, const FileInfo& right) { return left.modified < right.modified; });
  uint64_t totalBytes = 0;
  for (const FileInfo& report : reports) totalBytes += report.sizeBytes;

  const uint32_t maxMegabytes = settings().reportsMaxMegabytes;
  const uint32_t maxDays = settings().reportsMaxDays;
  const uint64_t maxBytes = uint64_t{maxMegabytes} << 20;
  const auto now = std::chrono::floor<std::chrono::seconds>(platform::current().clock.wallTime());
  const auto maxAge = std::chrono::hours(24) * int64_t{maxDays};
  uint64_t removed = 0;
  for (const FileInfo& report : reports) {
    const auto age = now - std::chrono::floor<std::chrono::seconds>(report.modified);
    if (totalBytes <= maxBytes && age <= maxAge) break;
    const std::string path = pathOf(folder, report);
    if (const std::error_code error = platform::current().files.remove(path)) {
      quorvelLog().standard("Can't remove the old report %s: %s", path.c_str(), error.message().c_str());
      break;
    }
    totalBytes -= report.sizeBytes;
    ++removed;
  }
  if (removed == 0) return 0;
  const std::string directory(folder.directory);
  quorvelLog().standard("Removed the %llu oldest reports from %s: more than %u MB, or older than %u days",
                        static_cast<unsigned long long>(removed), directory.c_str(), maxMegabytes, maxDays);
  return removed;
}

bool isNearlyFull(const ReportFolder& folder) {
  const auto space = platform::current().files.space(std::string(folder.directory));
  return space && space->freeBytes < space->totalBytes / kLeastFreePart;
}

}  // namespace

void removeUnfinishedReports() {
  const auto partialCopies = [](const ReportKind& kind) {
    return ReportFolder{kind.finished.directory, kPartialCopyPrefix, ""};
  };
  for (const ReportFolder& folder : {kHangReports.unfinished, kMemoryReports.unfinished,
                                     partialCopies(kHangReports), partialCopies(kMemoryReports)}) {
    for (const FileInfo& left : reportsIn(folder)) platform::current().files.remove(pathOf(folder, left));
  }
}

RoomForReport makeRoomForReport(const ReportKind& kind) {
  RoomForReport room;
  room.removed = removeOldReports(kind.finished);
  if (isNearlyFull(kind.unfinished) || isNearlyFull(kind.finished)) {
    room.error = std::make_error_code(std::errc::no_space_on_device);
  }
  return room;
}

void countRemovedReports(const ReportKind& kind, uint64_t removed) {
  if (removed == 0) return;
  const std::string directory(kind.finished.directory);
  platform::current().analytics.addToScalar(
      "com.corvix.quorvel.QVReportsRemoved." + directory.substr(directory.rfind('/') + 1),
      static_cast<int64_t>(removed), {});
}

}  // namespace quorveld
