// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only

// Called by the kernel for a thread, and for each open file of a process, while a file is read to its end.
//
// The kernel's types are declared by hand with just the fields that are used; libbpf finds each in the
// running kernel's type information (CO-RE). Direct reads of kernel memory can't fault: a pointer that has
// gone stale reads as 0.

#include "bpf_base/program.h"
#include "kelvane/kernel/addresses_asked.h"
#include "kelvane/kernel/unix_socket_ends.h"

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

struct inode {
  unsigned long i_ino;
};
struct file {
  struct inode* f_inode;
};
struct socket {
  struct file* file;
  struct sock* sk;
};
struct sock {
  struct socket* sk_socket;
};
struct unix_sock {
  struct sock* peer;
};
struct bpf_iter_meta {
  struct seq_file* seq;
};
struct bpf_iter__task {
  struct bpf_iter_meta* meta;
  struct task_struct* task;
};
struct bpf_iter__task_file {
  struct bpf_iter_meta* meta;
  struct file* file;
};
union bpf_iter_link_info {
  struct {
    __u32 tid;
  } task;
};

#pragma clang attribute pop

enum { kMaxFrames = 64 };
static __u64 frames[kMaxFrames];

// Before 6.1 the kernel goes through all threads whichever was asked for. It refuses a program that wants to
// know where a field is that it doesn't have.
static __always_inline void goes_through_what_was_asked_for(void) {
  volatile __u32 place = bpf_core_field_offset(union bpf_iter_link_info, task);
  (void)place;
}

struct stack_pass {
  struct seq_file* seq;
  long bytes;
};

static long write_frame(__u32 i, struct stack_pass* pass) {
  static const char line[] = "[<0>] %pB\n";
  if (i >= kMaxFrames || (long)(i * sizeof(frames[0])) >= pass->bytes) return 1;
  bpf_seq_printf(pass->seq, line, sizeof(line), &frames[i], sizeof(frames[i]));
  return 0;
}

// The text of proc(5)'s `stack`, or "error -NUMBER".
SEC("iter/task")
int kernel_stack(struct bpf_iter__task* context) {
  goes_through_what_was_asked_for();
  struct task_struct* task = context->task;
  if (!task) return 0;  // the end
  struct stack_pass pass = {.seq = context->meta->seq};
  pass.bytes = bpf_get_task_stack(task, frames, sizeof(frames), 0);
  if (pass.bytes < 0) {
    static const char failure[] = "error %ld";
    __u64 number = (__u64)pass.bytes;
    bpf_seq_printf(pass.seq, failure, sizeof(failure), &number, sizeof(number));
    return 0;
  }
  bpf_loop(kMaxFrames, write_frame, &pass, 0);
  return 0;
}

// What functions_at names: addresses, up to a 0.
struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, KELVANE_ADDRESSES_ASKED);
  __type(key, __u32);
  __type(value, __u64);
} asked SEC(".maps");

static long write_function(__u32 i, struct stack_pass* pass) {
  static const char line[] = "[<0>] %pB\n";
  __u64* address = bpf_map_lookup_elem(&asked, &i);
  if (!address || *address == 0) return 1;
  bpf_seq_printf(pass->seq, line, sizeof(line), address, sizeof(*address));
  return 0;
}

// A line as of proc(5)'s `stack` for each address that is asked for; of whichever thread it is called for.
SEC("iter/task")
int functions_at(struct bpf_iter__task* context) {
  goes_through_what_was_asked_for();
  if (!context->task) return 0;  // the end
  struct stack_pass pass = {.seq = context->meta->seq};
  bpf_loop(KELVANE_ADDRESSES_ASKED, write_function, &pass, 0);
  return 0;
}

// A struct unix_socket_ends for each.
SEC("iter/task_file")
int unix_sockets(struct bpf_iter__task_file* context) {
  goes_through_what_was_asked_for();
  struct file* file = context->file;
  if (!file) return 0;  // the end
  struct socket* socket = bpf_sock_from_file(file);
  if (!socket) return 0;
  struct sock* any = socket->sk;
  if (!any) return 0;
  struct unix_sock* own = bpf_skc_to_unix_sock(any);
  if (!own) return 0;
  struct unix_socket_ends ends = {.inode = file->f_inode->i_ino};
  if (own->peer) ends.peer_inode = own->peer->sk_socket->file->f_inode->i_ino;
  bpf_seq_write(context->meta->seq, &ends, sizeof(ends));
  return 0;
}

// The kernel asks it: what this calls is for programs under the GPL alone.
char LICENSE[] SEC("license") = "Dual BSD/GPL";
