// SPDX-License-Identifier: BSD-2-Clause OR GPL-2.0-only
#pragma once

/// How many addresses the BPF program names at a time: their names fit the 32 KB in which the kernel collects
/// what it writes.
#define KELVANE_ADDRESSES_ASKED 64
