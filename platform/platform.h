#pragma once

namespace quorveld::platform {

class Analytics;
class Clock;
class Device;
class Files;
class HostStatistics;
class Ipc;
class Kernel;
class KernelMemory;
class Logs;
class Notifications;
class PowerLog;
class PreferencesStore;
class ProcessTables;
class Queues;
class RenderServer;
class TraceLibraryLoader;

/// The operating system as the daemon sees it. Each service says on which threads it may be called.
struct Platform {
  Analytics& analytics;
  Clock& clock;
  Device& device;
  Files& files;
  HostStatistics& hostStatistics;
  Ipc& ipc;
  Kernel& kernel;
  KernelMemory& kernelMemory;
  Logs& logs;
  Notifications& notifications;
  PowerLog& powerLog;
  PreferencesStore& preferences;
  ProcessTables& processTables;
  Queues& queues;
  RenderServer& renderServer;
  TraceLibraryLoader& traceLibraries;
};

/// The installed platform; aborts when there is none.
const Platform& current();

/// Installs `platform` (null: none) for the whole process. Before anything else runs; it must outlive all
/// that uses it.
void install(const Platform* platform);

}  // namespace quorveld::platform
