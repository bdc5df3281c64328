// SPDX-License-Identifier: GPL-2.0-only
// The tick counter.
#pragma once

#include "kernel/types.h"

namespace kernel {

constexpr u64 HZ = 1000;

// Ticks of 1 ms since the layer was first used, plus what a test has turned the clock by.
u64 jiffies() noexcept;

// Wrap-safe: true when a is later than (or, _eq, the same as) b.
constexpr bool time_after(u64 a, u64 b) { return static_cast<s64>(b - a) < 0; }
constexpr bool time_after_eq(u64 a, u64 b) { return static_cast<s64>(a - b) >= 0; }

// For tests: turns the clock forward. Sleepers with a limit notice within 10 ms of real time.
void turn_clock(u64 ticks) noexcept;

}  // namespace kernel
