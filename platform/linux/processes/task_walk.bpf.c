// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only

// Walks all threads in one call, with the task iterator functions of kernel 6.7.

#include "platform/linux/processes/task_sample.bpf.h"

struct bpf_iter_task {
  __u64 opaque[3];
} __attribute__((aligned(8)));
extern int bpf_iter_task_new(struct bpf_iter_task* it, struct task_struct* task, unsigned int flags) __ksym;
extern struct task_struct* bpf_iter_task_next(struct bpf_iter_task* it) __ksym;
extern void bpf_iter_task_destroy(struct bpf_iter_task* it) __ksym;
extern void bpf_rcu_read_lock(void) __ksym;
extern void bpf_rcu_read_unlock(void) __ksym;

enum { kIterateAllThreads = 1 };

SEC("syscall")
int task_walk(void* unused) {
  struct bpf_iter_task iterator;
  struct task_struct* task;
  bpf_rcu_read_lock();
  bpf_iter_task_new(&iterator, NULL, kIterateAllThreads);
  while ((task = bpf_iter_task_next(&iterator))) add_task(task);
  bpf_iter_task_destroy(&iterator);
  bpf_rcu_read_unlock();
  return 0;
}

// The kernel asks it: what this calls is for programs under the GPL alone.
char LICENSE[] SEC("license") = "Dual BSD/GPL";
