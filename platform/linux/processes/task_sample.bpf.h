// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only
#pragma once

// What the two BPF programs share: filling one process_sample a process from the kernel's own records,
// without text.
//
// The kernel's types are declared by hand with just the fields that are used; libbpf finds each in the
// running kernel's type information (CO-RE), so that one object fits all kernels. Direct reads of kernel
// memory can't fault: a pointer that has gone stale reads as 0.

#include <stdbool.h>
#include <stddef.h>

#include "bpf_base/program.h"

#include "platform/linux/processes/process_table_sample.h"

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

struct percpu_counter {
  __s64 count;
  __s32* counters;
};
struct mm_struct {
  unsigned long locked_vm;
  struct percpu_counter rss_stat[4];
  struct file* exe_file;
  struct {
    long counter;
  } hugetlb_usage;
};
// Before 6.2. Types that the running kernel lacks are never asked for by name, since libbpf would then look
// for them in modules, which takes CAP_SYS_ADMIN: only fields of types that all kernels have.
struct mm_rss_stat {
  struct {
    long counter;
  } count[4];
};
struct mm_struct___before_6_2 {
  struct mm_rss_stat rss_stat;
};

struct task_io_accounting {
  __u64 read_bytes;
  __u64 write_bytes;
};
struct prev_cputime {
  __u64 utime;
  __u64 stime;
};
struct signal_struct {
  __u64 utime, stime, cutime, cstime;
  struct prev_cputime prev_cputime;
  unsigned long maj_flt, cmaj_flt;
  struct task_io_accounting ioac;
  short oom_score_adj;
  unsigned long long sum_sched_runtime;
};
struct sched_entity {
  __u64 sum_exec_runtime;
};
struct task_struct {
  unsigned int flags;
  int static_prio;
  struct sched_entity se;
  unsigned int policy;
  struct mm_struct* mm;
  int pid, tgid;
  __u64 utime, stime;
  __u64 start_boottime;
  unsigned long maj_flt;
  char comm[kSampleCommBytes];
  struct signal_struct* signal;
  struct task_io_accounting ioac;
};
struct bpf_array {
  void* pptrs[1];
};

#pragma clang attribute pop

enum { kKernelThread = 0x00200000, kDefaultPriority = 120 };
enum { kFilePages, kAnonymousPages, kSwapEntries, kSharedPages, kRssCounters };

// The samples. User space puts a bigger array in the place of one that was too small, without loading anew.
struct sample_array {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(map_flags, BPF_F_MMAPABLE | BPF_F_INNER_MAP);
  __uint(max_entries, 1);
  __uint(key_size, sizeof(__u32));
  __uint(value_size, sizeof(struct process_sample));
};
struct {
  __uint(type, BPF_MAP_TYPE_ARRAY_OF_MAPS);
  __uint(max_entries, 1);
  __type(key, __u32);
  __array(values, struct sample_array);
} sample_arrays SEC(".maps");

// Tells where the kernel keeps each CPU's copy of a per-CPU variable: the only thing that it is for.
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} cpu_probe SEC(".maps");

// A section, and so a map, of its own: user space maps it.
volatile struct sample_pass pass SEC(".data.pass") = {};

static __u32 known_cpus = 0;
static __u64 cpu_offset[kSampleMaxCpus];

// A pointer as a number. The verifier guards what it knows as a pointer; by way of the stack it forgets.
static __always_inline __u64 address_of(void* pointer) {
  void* volatile slot = pointer;
  __u64 address = 0;
  bpf_probe_read_kernel(&address, sizeof(address), (const void*)&slot);
  return address;
}

// Functions that are neither static nor inlined are verified once and not at each call, in each state that a
// caller may be in: without them the verifier gives up on the walk.

__noinline int find_cpu_offsets(void) {
  const __u32 zero = 0;
  const __u64 map = address_of(&cpu_probe);
  __u64 base = 0;
  bpf_probe_read_kernel(&base, sizeof(base), (void*)(map + bpf_core_field_offset(struct bpf_array, pptrs)));
  for (__u32 cpu = 0; cpu < kSampleMaxCpus && cpu < pass.cpu_count; ++cpu) {
    cpu_offset[cpu] = address_of(bpf_map_lookup_percpu_elem(&cpu_probe, &zero, cpu)) - base;
  }
  known_cpus = pass.cpu_count;
  return 0;
}

// The counters of a process's memory: what they hold, and where each CPU's copy is that wasn't handed in yet.
struct memory_counters {
  __s64 pages[kRssCounters];
  __u64 copies[kRssCounters];
};

// Makes the sums those of proc(5) `status`. Since 6.6 the copies are neighbours, which one read takes.
__noinline int add_cpu_copies(struct memory_counters* counters) {
  if (!counters) return 0;
  const __u64 first = counters->copies[0];
  bool neighbours = true;
  for (int i = 1; i < kRssCounters; ++i) {
    neighbours = neighbours && counters->copies[i] == first + i * sizeof(__s32);
  }
  for (__u32 cpu = 0; cpu < kSampleMaxCpus && cpu < pass.cpu_count; ++cpu) {
    __s32 parts[kRssCounters] = {};
    if (neighbours) {
      bpf_probe_read_kernel(parts, sizeof(parts), (void*)(first + cpu_offset[cpu]));
    } else {
      for (int i = 0; i < kRssCounters; ++i) {
        bpf_probe_read_kernel(&parts[i], sizeof(parts[i]), (void*)(counters->copies[i] + cpu_offset[cpu]));
      }
    }
    for (int i = 0; i < kRssCounters; ++i) counters->pages[i] += parts[i];
  }
  return 0;
}

__noinline int class_of(unsigned policy, int static_prio, unsigned flags) {
  return qosClassOf(policy, static_prio - kDefaultPriority, flags & kKernelThread);
}

// The index must be a constant: libbpf fills in how far apart the running kernel's counters are.
#define READ_COUNTER(mm, counters, i)                         \
  ({                                                          \
    (counters).pages[i] = (mm)->rss_stat[i].count;            \
    (counters).copies[i] = (__u64)(mm)->rss_stat[i].counters; \
  })

static __always_inline __u64 positive(__s64 value) {
  return value > 0 ? value : 0;
}

static __always_inline void add_memory(struct process_sample* sample, struct mm_struct* mm) {
  struct memory_counters counters = {};
  __s64* pages = counters.pages;
  struct mm_struct___before_6_2* old = (void*)mm;
  if (bpf_core_field_exists(old->rss_stat.count)) {
    bpf_probe_read_kernel(pages, sizeof(counters.pages), &old->rss_stat.count);
  } else {
    READ_COUNTER(mm, counters, kFilePages);
    READ_COUNTER(mm, counters, kAnonymousPages);
    READ_COUNTER(mm, counters, kSwapEntries);
    READ_COUNTER(mm, counters, kSharedPages);
    add_cpu_copies(&counters);
  }
  sample->resident_pages =
      positive(pages[kFilePages]) + positive(pages[kAnonymousPages]) + positive(pages[kSharedPages]);
  __s64 huge_pages = 0;
  if (bpf_core_field_exists(mm->hugetlb_usage.counter)) huge_pages = mm->hugetlb_usage.counter;
  sample->huge_pages = positive(huge_pages);
  sample->footprint_pages =
      positive(pages[kAnonymousPages]) + positive(pages[kSwapEntries]) + sample->huge_pages;
  sample->locked_pages = mm->locked_vm;
  sample->memory = (__u64)mm;
  // A fork takes the open program file over; who starts a program opens it anew.
  sample->program = (__u64)mm->exe_file;
  sample->flags |= kSampleHasMemory;
}

// What is the process's own. Comes before its threads: one that ends in between is then missing for once,
// where the other order would count it twice.
static __always_inline void add_process(struct process_sample* sample, struct task_struct* leader) {
  struct signal_struct* process = leader->signal;
  sample->flags |= kSampleHasLeader | kSampleHasScore;
  sample->leader_class = class_of(leader->policy, leader->static_prio, leader->flags);
  bpf_probe_read_kernel(sample->comm, sizeof(sample->comm), &leader->comm);
  sample->comm[kSampleCommBytes - 1] = 0;
  sample->start_ns = leader->start_boottime + pass.boottime_offset_ns;
  sample->oom_score_adj = process->oom_score_adj;
  sample->runtime_ns += process->sum_sched_runtime;
  sample->utime_ns += process->utime;
  sample->stime_ns += process->stime;
  if (bpf_core_field_exists(process->prev_cputime)) {
    sample->prev_utime_ns = process->prev_cputime.utime;
    sample->prev_stime_ns = process->prev_cputime.stime;
  }
  sample->child_utime_ns = process->cutime;
  sample->child_stime_ns = process->cstime;
  sample->child_major_faults = process->cmaj_flt;
  sample->major_faults += process->maj_flt;
  if (bpf_core_field_exists(process->ioac.read_bytes)) {
    sample->read_bytes += process->ioac.read_bytes;
    sample->write_bytes += process->ioac.write_bytes;
  }
}

static __always_inline void add_thread(struct process_sample* sample, struct task_struct* task) {
  const __u64 runtime = task->se.sum_exec_runtime;
  sample->runtime_ns += runtime;
  sample->utime_ns += task->utime;
  sample->stime_ns += task->stime;
  sample->major_faults += task->maj_flt;
  if (bpf_core_field_exists(task->ioac.read_bytes)) {
    sample->read_bytes += task->ioac.read_bytes;
    sample->write_bytes += task->ioac.write_bytes;
  }
  __u32 held = class_of(task->policy, task->static_prio, task->flags);
  barrier_var(held);  // or the compiler drops the check that the verifier wants to see
  if (held < kQosClassCount) sample->class_runtime_ns[held] += runtime;
}

// The sample that `task` adds to: the last one when it is of the same process, else a new one. Null when the
// array is full.
static __always_inline struct process_sample* sample_for(struct task_struct* task) {
  const __u32 zero = 0;
  const __s32 pid = task->tgid;
  const bool is_new = pid != pass.last_pid;
  if (is_new) {
    pass.last_pid = pid;
    ++pass.sample_count;
  }
  void* array = bpf_map_lookup_elem(&sample_arrays, &zero);
  if (!array) return NULL;
  const __u32 index = pass.sample_count - 1;
  struct process_sample* sample = bpf_map_lookup_elem(array, &index);
  if (sample && is_new) {
    __builtin_memset(sample, 0, sizeof(*sample));
    sample->pid = pid;
  }
  return sample;
}

static __always_inline void add_task(struct task_struct* task) {
  if (task->pid == 0) return;  // the idle task
  if (known_cpus != pass.cpu_count) find_cpu_offsets();
  struct process_sample* sample = sample_for(task);
  if (!sample) return;
  if (task->pid == task->tgid) add_process(sample, task);
  add_thread(sample, task);
  if (sample->flags & kSampleHasMemory || task->flags & kKernelThread) return;
  struct mm_struct* mm = task->mm;  // a thread that has ended has none, though it be the main one
  if (mm) add_memory(sample, mm);
}
