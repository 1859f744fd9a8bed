#include "tools/commands/spool.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "tools/base/table.h"
#include "tools/export/since.h"

namespace quorvelctl {

std::optional<std::vector<ReportEntry>> spoolEntries(Context& context) {
  std::vector<ReportEntry> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator file(context.path(kSpool), error), end; !error && file != end;
       file.increment(error)) {
    struct stat status {};
    if (file->path().extension() != ".kelvane" || lstat(file->path().c_str(), &status) != 0) continue;
    if (!S_ISREG(status.st_mode)) continue;
    entries.push_back(
        {file->path().filename(), status.st_mtim.tv_sec, static_cast<uint64_t>(status.st_size), {}, {}});
  }
  if (error && error != std::errc::no_such_file_or_directory) {  // it is made with the first report
    context.fail("can't read the reports in " + context.path(kSpool) + ": " + error.message());
    return std::nullopt;
  }
  std::sort(entries.begin(), entries.end(), [](const ReportEntry& a, const ReportEntry& b) {
    return std::tie(a.writtenAt, a.fileName) < std::tie(b.writtenAt, b.fileName);
  });
  return entries;
}

std::optional<time_t> sinceOption(Context& context, const std::string& since) {
  if (since.empty()) return 0;
  const std::optional<time_t> time = sinceTime(since, std::time(nullptr));
  if (!time) {
    context.fail(
        "--since takes 90m, 24h, 7d, 2w, 2026-03-01 or 2026-03-01T10:00:00Z, not \"" + printable(since) + '"',
        kWrongUsage);
  }
  return time;
}

}  // namespace quorvelctl
