#include "platform/linux/bpf_object.h"

// QUORVELD_BPF_OBJECT: the path of what clang made of task_snapshot.bpf.c.
asm(".pushsection .rodata\n"
    ".balign 16\n"
    ".global quorveld_task_snapshot_begin, quorveld_task_snapshot_end\n"
    "quorveld_task_snapshot_begin:\n"
    ".incbin \"" QUORVELD_BPF_OBJECT
    "\"\n"
    "quorveld_task_snapshot_end:\n"
    ".byte 0\n"
    ".popsection\n");
