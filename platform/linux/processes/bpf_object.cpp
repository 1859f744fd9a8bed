#include "platform/linux/processes/bpf_object.h"

// QUORVELD_TASK_WALK, QUORVELD_TASK_ITERATOR: the paths of what clang made of the two programs.
#define QUORVELD_EMBED(name, path)                  \
  asm(".pushsection .rodata\n"                      \
      ".balign 16\n"                                \
      ".global " name "_begin, " name "_end\n" name \
      "_begin:\n"                                   \
      ".incbin \"" path "\"\n" name                 \
      "_end:\n"                                     \
      ".byte 0\n"                                   \
      ".popsection\n")

QUORVELD_EMBED("quorveld_task_walk", QUORVELD_TASK_WALK);
QUORVELD_EMBED("quorveld_task_iterator", QUORVELD_TASK_ITERATOR);
