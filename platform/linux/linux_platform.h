#pragma once

#include <memory>
#include <string>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/desktop/render_server.h"
#include "platform/linux/files/files.h"
#include "platform/linux/host/device.h"
#include "platform/linux/host/trace_library.h"
#include "platform/linux/ipc/ipc.h"
#include "platform/linux/logs/logs.h"
#include "platform/linux/memory/host_statistics.h"
#include "platform/linux/memory/kernel_memory.h"
#include "platform/linux/notifications/notifications.h"
#include "platform/linux/outputs/analytics.h"
#include "platform/linux/outputs/power_log.h"
#include "platform/linux/preferences/preferences_store.h"
#include "platform/linux/processes/kernel.h"
#include "platform/linux/processes/process_table.h"
#include "platform/linux/queues/clock.h"
#include "platform/linux/queues/event_queues.h"
#include "platform/platform.h"

namespace quorveld::linux_platform {

/// Linux as the daemon's platform: one of each service, and the instance's lock.
///
/// Made first in `main` and destroyed last. A service must not log, and must not ask for another one through
/// `platform::current()`, before the platform has been installed: their constructors run earlier.
class LinuxPlatform {
 public:
  /// Locks <root>/run/quorveld/quorveld.lock for the life of the object, readies the process (SIGPIPE
  /// ignored, as many descriptors as the clients' limits ask for) and makes the services. Null, and the
  /// reason in `error`, when another instance holds the lock or it can't be had; nothing has been touched
  /// then.
  [[nodiscard]] static std::unique_ptr<LinuxPlatform> create(std::string& error);

  const platform::Platform& platform() const { return platform_; }

 private:
  explicit LinuxPlatform(UniqueFd lock);

  // In the order in which they depend on each other. The lock comes first: it is given up when all has gone.
  UniqueFd lock_;
  LinuxLogs logs_;
  LinuxClock clock_;
  LinuxDevice device_;
  LinuxFiles files_;
  LinuxPreferencesStore preferences_;
  LinuxNotifications notifications_;
  LinuxAnalytics analytics_;
  LinuxRenderServer renderServer_;
  LinuxTraceLibraryLoader traceLibraries_;
  LinuxKernel kernel_;
  LinuxHostStatistics hostStatistics_;
  LinuxProcessTables processTables_;
  LinuxKernelMemory kernelMemory_{processTables_};
  LinuxPowerLog powerLog_;
  LinuxIpc ipc_{logs_};
  LinuxQueues queues_;
  platform::Platform platform_;
};

}  // namespace quorveld::linux_platform
