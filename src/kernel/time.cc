// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/time.h"

#include <atomic>
#include <ctime>

namespace kernel {
namespace {

std::atomic<u64> turned{0};

u64 now_ms() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<u64>(ts.tv_sec) * 1000 + static_cast<u64>(ts.tv_nsec) / 1000000;
}

}  // namespace

u64 jiffies() noexcept {
  static const u64 first_use_ms = now_ms();
  return now_ms() - first_use_ms + turned.load(std::memory_order_relaxed);
}

void turn_clock(u64 ticks) noexcept { turned.fetch_add(ticks, std::memory_order_relaxed); }

}  // namespace kernel
