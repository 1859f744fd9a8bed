#pragma once

namespace quorveld::platform {

class Analytics;
class Clock;
class Device;
class Files;
class Ipc;
class Kernel;
class Logs;
class Notifications;
class PreferencesStore;
class Queues;
class RenderServer;
class TraceLibraryLoader;

/// The operating system as the daemon sees it. Each service says on which threads it may be called.
struct Platform {
  Analytics& analytics;
  Clock& clock;
  Device& device;
  Files& files;
  Ipc& ipc;
  Kernel& kernel;
  Logs& logs;
  Notifications& notifications;
  PreferencesStore& preferences;
  Queues& queues;
  RenderServer& renderServer;
  TraceLibraryLoader& traceLibraries;
};

/// The installed platform; aborts when there is none.
const Platform& current();

/// Installs `platform` (null: none) for the whole process. Before anything else runs; it must outlive all that uses it.
void install(const Platform* platform);

}  // namespace quorveld::platform
