#include "kelvane/capture/process_scan.h"

#include <fcntl.h>
#include <unistd.h>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {

ProcessScan scanProcesses(const Deadline& deadline) {
  ProcessScan scan;
  std::vector<pid_t> pids = listNumbersAt(AT_FDCWD, "/proc", kMaxProcessesScanned);
  if (pids.size() == kMaxProcessesScanned) {
    scan.omissions.push_back(
        {"processes", "only the first " + std::to_string(pids.size()) + " were looked at"});
  }
  const pid_t session = getsid(0);
  for (pid_t pid : pids) {
    if (deadline.passed()) {
      scan.omissions.push_back({"processes", "the time for the capture was over"});
      break;
    }
    std::string dir = "/proc/" + std::to_string(pid);
    auto stat = parseStat(readFileAt(AT_FDCWD, (dir + "/stat").c_str(), kMaxProcFileBytes).text);
    if (!stat || stat->session == session) continue;
    scan.processCount++;
    if (stat->state != 'R' && stat->state != 'D') continue;
    if (scan.awake.size() == kMaxProcessesListed) {
      scan.omissions.push_back(
          {"processes", std::to_string(kMaxProcessesListed) + " that are awake are listed"});
      break;
    }
    std::string wchan = readFileAt(AT_FDCWD, (dir + "/wchan").c_str(), kMaxProcFileBytes).text;
    scan.awake.push_back({pid, stat->comm, stat->state, wchan == "0" ? std::string() : wchan});
  }
  return scan;
}

}  // namespace kelvane
