#pragma once

// The compiled task_walk.bpf.c and task_iterator.bpf.c: ELF objects that are part of the program.

extern "C" {
extern const unsigned char quorveld_task_walk_begin[];
extern const unsigned char quorveld_task_walk_end[];
extern const unsigned char quorveld_task_iterator_begin[];
extern const unsigned char quorveld_task_iterator_end[];
}
