// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only
#pragma once

// What every BPF program here begins with: the types and numbers that libbpf's headers expect of a kernel
// header, without one, and those headers.

typedef signed char __s8;
typedef unsigned char __u8;
typedef short __s16;
typedef unsigned short __u16;
typedef int __s32;
typedef unsigned int __u32;
typedef long long __s64;
typedef unsigned long long __u64;
typedef __u16 __be16;
typedef __u32 __be32;
typedef __u32 __wsum;

enum bpf_map_type { BPF_MAP_TYPE_ARRAY = 2, BPF_MAP_TYPE_PERCPU_ARRAY = 6, BPF_MAP_TYPE_ARRAY_OF_MAPS = 12 };
enum { BPF_F_MMAPABLE = 1 << 10, BPF_F_INNER_MAP = 1 << 12 };

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
