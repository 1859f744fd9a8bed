// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only
#pragma once

/// C as well as C++: the BPF program classifies threads with the very same rule.

/// The classes that CPU time is accounted to, in the order in which rusage_info_v3 lists them.
enum qos_class {
  kQosDefault,
  kQosMaintenance,
  kQosBackground,
  kQosUtility,
  kQosLegacy,
  kQosUserInitiated,
  kQosUserInteractive,
};
enum { kQosClassCount = 7 };

/// The class of a thread with this scheduling policy (sched(7)) and nice level (-20 to 19); kernel threads
/// have one of their own. A policy that is not known here counts by its nice level, as the kernel's own fair
/// class.
static inline enum qos_class qosClassOf(unsigned policy, int nice, int isKernelThread) {
  enum { kFifo = 1, kRoundRobin = 2, kBatch = 3, kIdle = 5, kDeadline = 6 };
  if (isKernelThread) return kQosDefault;
  if (policy == kFifo || policy == kRoundRobin || policy == kDeadline) return kQosUserInteractive;
  if (policy == kIdle) return kQosMaintenance;
  if (policy == kBatch) return kQosUtility;
  if (nice < 0) return kQosUserInitiated;
  if (nice == 0) return kQosLegacy;
  return nice < 10 ? kQosUtility : kQosBackground;
}
