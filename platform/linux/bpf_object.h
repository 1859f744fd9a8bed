#pragma once

#include <cstddef>

namespace quorveld::linux_platform {

/// The compiled task_snapshot.bpf.c, an ELF object that is part of the program.
extern "C" const unsigned char quorveld_task_snapshot_begin[];
extern "C" const unsigned char quorveld_task_snapshot_end[];

inline size_t taskSnapshotBytes() {
  return static_cast<size_t>(quorveld_task_snapshot_end - quorveld_task_snapshot_begin);
}

}  // namespace quorveld::linux_platform
