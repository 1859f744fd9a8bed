// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only
#pragma once

#include <stdint.h>

#include "platform/linux/processes/qos_classes.h"

/// C as well as C++: the BPF program fills these in kernel memory that the daemon has mapped.

enum {
  kSampleMaxCpus = 64,        // of which the BPF program keeps an address
  kSampleCommBytes = 16,      // the kernel's TASK_COMM_LEN
  kSampleHasLeader = 1,       // the fields that the main thread gives are filled
  kSampleClassesUnknown = 2,  // class_runtime_ns was not read, because the process has spent no CPU since
  kSampleHasScore = 4,        // oom_score_adj was read
  kSampleHasMemory = 8,       // the fields of memory are filled
};

/// What one pass read of one process, raw: figures of the whole process, and sums over its threads.
///
/// A pass may leave several samples for a pid, each with the sums over some of its threads; exactly one of
/// them then has kSampleHasLeader, unless the process was going away. The memory is that of any of its
/// threads, since a main thread that has ended has none, and stands in one sample or more.
struct process_sample {
  int32_t pid;
  uint8_t flags;
  uint8_t leader_class;         // enum qos_class of the main thread
  int16_t oom_score_adj;        // proc(5)
  char comm[kSampleCommBytes];  // NUL-terminated
  uint64_t start_ns;            // CLOCK_BOOTTIME; as a signed number below 0: before this clock's beginning

  // What the kernel scales to the user and system times that proc(5) shows: precise run time, the tick's
  // samples of user and system time, and what it answered last. All of the whole process, ended threads too.
  uint64_t runtime_ns;
  uint64_t utime_ns;
  uint64_t stime_ns;
  uint64_t prev_utime_ns;
  uint64_t prev_stime_ns;

  uint64_t child_utime_ns;  // of children that were waited for
  uint64_t child_stime_ns;
  uint64_t child_major_faults;
  uint64_t major_faults;
  uint64_t read_bytes;  // storage I/O, proc(5) `io`
  uint64_t write_bytes;

  uint64_t resident_pages;
  uint64_t footprint_pages;  // anonymous resident, swapped, and huge pages
  uint64_t huge_pages;       // those of them, in pages of the usual size
  uint64_t locked_pages;
  /// The same number in two samples of one pass: both processes run in the same memory; 0: unknown.
  uint64_t memory;
  /// The same number in two samples of one pass: both run the same program, and by BPF only when neither has
  /// started it since they were one process; 0: unknown.
  uint64_t program;

  uint64_t class_runtime_ns[kQosClassCount];  // of the live threads, by the class that each holds now
};

/// What user space and the BPF program tell each other about one pass.
struct sample_pass {
  /// Possible CPUs; 0 when they are more than kSampleMaxCpus: memory counters are then read without what each
  /// CPU has not handed in yet, up to 32 pages or twice the number of CPUs a CPU.
  uint32_t cpu_count;
  /// Samples begun, those included for which there was no room. User space sets both to 0 before a pass.
  uint32_t sample_count;
  int32_t last_pid;  // whose sample was begun last
  /// By how much CLOCK_BOOTTIME of the daemon's time namespace is ahead of the kernel's.
  int64_t boottime_offset_ns;
};
