#include "tools/commands/memory_folder.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <tuple>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/memory/memory_growth.h"

namespace quorvelctl {
namespace {

constexpr const char* kDirectory = "/Library/Logs/Faultkeep";
constexpr std::string_view kReportPrefix = "memory-snapshot-";

/// Names of the reports; none when the folder can't be read, as told.
std::vector<std::string> reportNames(Context& context) {
  const std::string directory = context.path(kDirectory);
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator file(directory, error), end; !error && file != end;
       file.increment(error)) {
    const std::string name = file->path().filename();
    if (!name.starts_with(kReportPrefix) || !name.ends_with(".ips")) continue;
    std::error_code gone;
    if (file->symlink_status(gone).type() == std::filesystem::file_type::regular) names.push_back(name);
  }
  if (error && error != std::errc::no_such_file_or_directory)
    context.fail("can't read the reports in " + directory + ": " + error.message());
  return names;
}

/// The newest report; empty when there is none, as told.
std::string newestPath(Context& context) {
  const std::string directory = context.path(kDirectory);
  std::tuple<time_t, long, std::string> newest{};
  for (const std::string& name : reportNames(context)) {
    const std::string path = directory + "/" + name;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) continue;
    newest = std::max(newest, {status.st_mtim.tv_sec, status.st_mtim.tv_nsec, path});
  }
  if (std::get<2>(newest).empty() && context.status == 0) tellNoMemoryReport(context);
  return std::get<2>(newest);
}

}  // namespace

void tellNoMemoryReport(const Context& context) {
  std::puts(context.json ? "null" : kNoMemoryReport);
}

std::optional<MemoryReport> readMemoryReport(Context& context, const std::string& name) {
  std::string path = name;
  if (name.empty()) {
    path = newestPath(context);
    if (path.empty()) return std::nullopt;
  } else if (name.find('/') == std::string::npos) {
    path = context.path(kDirectory) + "/" + name;
  }
  std::error_code code;
  const std::optional<std::string> text = readFile(path, kMaxMemoryReportBytes, code);
  if (!text) {
    context.fail("can't read " + path + ": " + code.message());
    return std::nullopt;
  }
  std::string error;
  std::optional<MemoryReport> report = parseMemoryReport(*text, error);
  if (!report) context.fail(path + " is no memory report: " + printable(error));
  return report;
}

std::multimap<double, std::string> memoryReportPaths(Context& context) {
  const std::string directory = context.path(kDirectory);
  std::multimap<double, std::string> byHours;
  for (const std::string& name : reportNames(context)) {
    constexpr size_t kTimestampLength = 17;
    const auto at = hoursOf(name.substr(kReportPrefix.size(), kTimestampLength));
    if (at) byHours.emplace(*at, directory + "/" + name);
  }
  return byHours;
}

std::vector<MemoryReport> memoryReportsSince(Context& context, double hours, size_t most) {
  std::multimap<double, std::string> byHours = memoryReportPaths(context);
  if (!byHours.empty()) byHours.erase(byHours.begin(), byHours.lower_bound(byHours.rbegin()->first - hours));
  std::vector<MemoryReport> reports;
  size_t index = 0;
  for (const auto& [at, path] : byHours) {
    const bool taken = index * most / byHours.size() != (index + 1) * most / byHours.size();
    ++index;
    if (!taken) continue;
    std::optional<MemoryReport> report = readMemoryReport(context, path);
    if (report) reports.push_back(std::move(*report));
  }
  return reports;
}

}  // namespace quorvelctl
