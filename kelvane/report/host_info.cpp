#include "kelvane/report/host_info.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {

HostInfo readHostInfo() {
  HostInfo host;
  utsname names{};
  if (uname(&names) == 0) {
    host.kernel = std::string(names.sysname) + " " + names.release + " " + names.version;
    host.machine = names.machine;
  }
  FileText release = readFileAt(AT_FDCWD, "/etc/os-release", kMaxProcFileBytes);
  if (release.error) release = readFileAt(AT_FDCWD, "/usr/lib/os-release", kMaxProcFileBytes);
  host.system = parseOsReleaseName(release.text);
  host.cpus = sysconf(_SC_NPROCESSORS_ONLN);
  return host;
}

}  // namespace kelvane
