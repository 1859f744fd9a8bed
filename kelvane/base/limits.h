#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kelvane {

// Time. The caller's queue stands still during a capture, and a hung process is exactly the one whose files
// and threads may not answer.

/// How long a call of the library waits for the process that makes the report; it is ended then, and the call
/// writes what it knows itself. Writing the report into the caller's file comes on top.
inline constexpr std::chrono::milliseconds kReportBudget{5'000};
/// How long the process may be looked at before the report is written with what is there.
inline constexpr std::chrono::milliseconds kCaptureBudget{2'500};
/// When looking at further threads stops, so that a capture that merely has much to do ends by itself.
inline constexpr std::chrono::milliseconds kWorkBudget{2'000};
/// How long a thread may take to stop, the hung one and any other; on a machine short of CPU even a willing
/// one does.
inline constexpr std::chrono::milliseconds kHungThreadStopWait{250};
inline constexpr std::chrono::milliseconds kThreadStopWait{50};
/// How long the copy of one thread may take, the wait included: what traces it is ended then, which lets it
/// run on.
inline constexpr std::chrono::milliseconds kCopyLimit{500};
/// How long what is ended then may take to end.
inline constexpr std::chrono::milliseconds kCopierEnd{100};

// The processes of a capture.

/// The descriptor that says, by being open, that a process of a capture is still there.
inline constexpr int kLifeDescriptor = 3;
/// The descriptor over which samples of the hung thread come; of a capture without any it is no socket.
inline constexpr int kSamplesDescriptor = 4;
/// The descriptor of a file for the verdict in short.
inline constexpr int kFindingDescriptor = 5;

/// Captures that the kernel may hold up in all, and those among them that look at processes of one user. With
/// more, reports say so and go without the look.
inline constexpr size_t kMaxLeftBehind = 8;
inline constexpr size_t kMaxLeftBehindOfUser = 4;
/// How long a call waits for what it has ended to go.
inline constexpr std::chrono::milliseconds kGoingWait{50};
inline constexpr size_t kMaxReportBytes = size_t{64} * 1024 * 1024;
/// Of each of them. Above all the limits of what is held at a time, and what libdw makes of it.
inline constexpr size_t kMaxAddressSpaceBytes = size_t{512} * 1024 * 1024;
/// More than the time that a capture may take, so that it ends what has been left behind and runs.
inline constexpr std::chrono::seconds kMaxCpuTime{6};
/// The sampler takes a thousandth of a CPU, for as long as operations are pending; it is started anew then.
inline constexpr std::chrono::seconds kMaxSamplerCpuTime{60};
/// The recorder's pages take one for each CPU.
inline constexpr size_t kMaxDescriptors = 4'096;
/// What the look publishes, and what parsing does.
inline constexpr size_t kMaxFindingsBytes = size_t{16} * 1024 * 1024;
/// How long parsing waits for a file of the process to be opened; it does without that and all further ones
/// then.
inline constexpr std::chrono::milliseconds kFileWait{500};

// The process named by the header.

inline constexpr size_t kMaxThreadsCounted = 65'536;
/// How long a thread is searched for by the id that its process calls it in a PID namespace of its own.
inline constexpr std::chrono::milliseconds kThreadSearch{100};
inline constexpr size_t kMaxThreadsListed = 1'024;
/// Processes that descend from a launched one.
inline constexpr size_t kMaxDescendants = 64;
inline constexpr size_t kMaxThreadsWithStack = 256;
inline constexpr size_t kMaxStackBytes = size_t{64} * 1024;
/// Stack bytes that one round of copying shares with the process that copies.
inline constexpr size_t kMaxCopiedBytes = size_t{2} * 1024 * 1024;
inline constexpr size_t kMaxFramesPerStack = 256;
inline constexpr size_t kMaxKernelFrames = 64;
inline constexpr size_t kMaxMapsBytes = size_t{16} * 1024 * 1024;
inline constexpr size_t kMaxModules = 4'096;
/// What is held of an ELF file for unwinding and naming, and of all files of a process. A part that is larger
/// is left out.
inline constexpr size_t kMaxElfBytes = size_t{64} * 1024 * 1024;
inline constexpr size_t kMaxElfBytesOfReport = size_t{128} * 1024 * 1024;
/// A longer mangled name is written as it is: demangling may grow it without end.
inline constexpr size_t kMaxMangledBytes = 1'024;
inline constexpr size_t kMaxNameBytes = 4'096;

// The flight recorder.

/// Events of one report; the oldest are left out. 40 bytes each, held twice while they are put in order.
inline constexpr size_t kMaxRecordedEvents = 400'000;
inline constexpr size_t kMaxThreadNames = 65'536;
inline constexpr size_t kMaxMarks = 16'384;
inline constexpr size_t kMaxMarkBytes = 256;
/// A page of the kernel's buffer.
inline constexpr size_t kMaxTracePageBytes = size_t{64} * 1024;
/// A page that was read is kept until it is this old, or until more than this many buffers' worth were read
/// since.
inline constexpr std::chrono::minutes kKeepPagesFor{10};
inline constexpr size_t kKeptBuffers = 2;

// Where threads with pending operations are.

/// Threads that are sampled at a time, and those among them of one user.
inline constexpr size_t kMaxSampledThreads = 8;
inline constexpr size_t kMaxSampledThreadsOfUser = 4;
/// Of its CPU time, and at how many of its leaves from the CPU between two collections at most: each sample
/// costs the thread some microseconds.
inline constexpr uint64_t kSamplesPerSecond = 49;
inline constexpr uint64_t kLeavesPerCollection = 40;
inline constexpr size_t kSampledStackBytes = size_t{8} * 1024;
/// The kernel's, for each thread: some 60 samples.
inline constexpr size_t kSampleRingBytes = size_t{512} * 1024;
/// How often the rings are emptied. The kernel writes less than a ring's bytes meanwhile.
inline constexpr std::chrono::milliseconds kCollectEvery{200};
/// What is kept of each thread: five seconds at the full rate.
inline constexpr size_t kMaxKeptSamples = 256;
inline constexpr size_t kMaxClockMarks = 128;
inline constexpr size_t kMaxNotedWaits = 64;
inline constexpr size_t kMaxSamplesBytes = size_t{4} * 1024 * 1024;
/// How long beginning with a thread may take; it is held up while its process executes a program.
inline constexpr std::chrono::milliseconds kBeginWait{100};
/// The sampler ends without orders. They come with the daemon's hang checks, every 5 or 6 seconds, and as
/// often of a launch.
inline constexpr std::chrono::milliseconds kOrdersWait{15'000};
/// How long the look at a process waits for its samples.
inline constexpr std::chrono::milliseconds kSamplesWait{200};
/// Waits up to this long are put down to a neighbour's stack, if their own were too many to be sampled.
inline constexpr std::chrono::milliseconds kShortWait{100};
/// Places in the table of where a hung thread was.
inline constexpr size_t kMaxPlacesListed = 32;

// Who waits for whom.

/// How far the waits are followed from the hung thread on, how many threads are looked at on the way, and how
/// many who can end one wait.
inline constexpr size_t kMaxWaitDepth = 8;
inline constexpr size_t kMaxWaitParties = 24;
inline constexpr size_t kMaxWaitHolders = 6;
/// How long threads that a copy has woken may take to go back to sleep.
inline constexpr std::chrono::milliseconds kSettleTime{50};
/// How long they are watched, to tell who stands still from who moves, and who computes from who is given no
/// CPU; and how many times more for who has had none.
inline constexpr std::chrono::milliseconds kWatchTime{40};
inline constexpr int kMoreWatches = 4;
/// How often, and after what time each, the hung thread is looked at again that was awake, but is mostly
/// asleep.
inline constexpr int kMoreLooks = 5;
inline constexpr std::chrono::milliseconds kBetweenLooks{2};
/// Threads of a process among whom whoever is to give a signal may be.
inline constexpr size_t kMaxWaitCandidates = 12;
/// Threads of other processes on the way to the culprit of whom stacks are taken, from that one on.
inline constexpr size_t kMaxOtherStacks = 6;
/// How long a sleep may last that is looked at for what the thread tries between two of them; how long it is
/// watched for that, for a sleep in between, and all threads of a graph.
inline constexpr std::chrono::milliseconds kMaxTrySleep{200};
inline constexpr std::chrono::milliseconds kTryWatch{400};
inline constexpr std::chrono::milliseconds kAllTriesWatch{600};
/// The kernel's, for what it writes of a watched thread's system calls; a power of two.
inline constexpr size_t kCallRingBytes = size_t{64} * 1024;

// All processes.

/// How much CPU time the search for who has what open may take, and how many descriptors of a process it
/// looks at.
inline constexpr std::chrono::milliseconds kPeerSearchCpu{100};
inline constexpr size_t kMaxDescriptorsSearched = 4'096;
/// Descriptors that one call watches, and processes that have one end.
inline constexpr size_t kMaxWatchedDescriptors = 256;
inline constexpr size_t kMaxEndHolders = 16;
/// Sockets of a network namespace, locks on files, mounts.
inline constexpr size_t kMaxNetTableBytes = size_t{1024} * 1024;

inline constexpr size_t kMaxProcessesScanned = 16'384;
inline constexpr size_t kMaxProcessesListed = 256;
/// How long all processes are watched to see who has the CPU, where no recording tells. Their CPU times are
/// counted in steps of some ten milliseconds.
inline constexpr std::chrono::milliseconds kRivalsWatch{200};

// What the flight recorder adds to a report.

/// Reading the recording goes on beside the look at the process.
inline constexpr std::chrono::milliseconds kRecordingBudget{1'000};
/// How much time around the hang is shown.
inline constexpr std::chrono::seconds kContext{1};
/// Intervals drawn of all CPUs together, and of the hung thread's states: some 120 bytes each. The longest
/// are kept, since a viewer shows the others as hairlines anyway.
inline constexpr size_t kMaxCpuRunsDrawn = 50'000;
inline constexpr size_t kMaxStatesDrawn = 10'000;
inline constexpr size_t kMaxMarksDrawn = 1'000;

// The header and the small files of /proc.

inline constexpr size_t kMaxHeaderBytes = size_t{1024} * 1024;
inline constexpr int kMaxHeaderDepth = 64;
inline constexpr size_t kMaxProcFileBytes = size_t{64} * 1024;
/// Control groups that are asked for their limits, from the process's own upwards.
inline constexpr size_t kMaxGroupDepth = 16;

}  // namespace kelvane
