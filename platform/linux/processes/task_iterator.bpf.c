// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only

// Called by the kernel once a thread, in the order of thread ids, while a file is read to its end.

#include "platform/linux/processes/task_sample.bpf.h"

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)
struct bpf_iter__task {
  struct task_struct* task;
};
#pragma clang attribute pop

SEC("iter/task")
int task_iterator(struct bpf_iter__task* context) {
  struct task_struct* task = context->task;
  if (!task) return 0;  // the end
  add_task(task);
  return 0;
}

// The kernel asks it: what this calls is for programs under the GPL alone.
char LICENSE[] SEC("license") = "Dual BSD/GPL";
