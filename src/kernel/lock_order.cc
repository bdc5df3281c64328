// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/lock_order.h"

#ifdef ZORV_LOCK_ORDER

#include <execinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "kernel/task.h"

namespace kernel {
namespace {

constexpr u32 max_held = 24;
constexpr u32 max_frames = 16;

struct stack {
  void* frames[max_frames];
  int count;
};

struct held_lock {
  const void* lock;
  const lock_class* of;
  lock_use use;
  stack taken_at;
};

thread_local held_lock held[max_held];
thread_local u32 held_count = 0;
thread_local u32 exceptions = 0;

// Along the frame pointers, which this build keeps: locks are taken too often for the unwinder. A
// caller without one ends the walk.
__attribute__((noinline, no_sanitize("address"))) void capture(stack* s) noexcept {
  constexpr std::uintptr_t largest_frame = 64 * 1024;
  s->count = 0;
  auto* frame = static_cast<void**>(__builtin_frame_address(0));
  while (s->count < static_cast<int>(max_frames)) {
    auto* const caller = static_cast<void**>(frame[0]);
    s->frames[s->count++] = frame[1];
    const auto up = reinterpret_cast<std::uintptr_t>(caller);
    const auto here = reinterpret_cast<std::uintptr_t>(frame);
    if (up <= here || up - here > largest_frame || up % sizeof(void*) != 0) break;
    frame = caller;
  }
}

void print(const char* what, const lock_class* c, const void* lock, const stack& s) {
  std::fprintf(stderr, "%s %s (%p)\n", what, c->name, lock);
  std::fflush(stderr);
  backtrace_symbols_fd(s.frames, s.count, STDERR_FILENO);
}

[[noreturn]] void fail(const held_lock& holds, const void* lock, const lock_class* c,
                       const stack& now) {
  std::fprintf(stderr, "kernel: %s: locks are taken against their order\n", current()->comm);
  print("holds", holds.of, holds.lock, holds.taken_at);
  print("takes", c, lock, now);
  std::abort();
}

}  // namespace

void lock_order_taking(const void* lock, const lock_class* c, lock_use use) noexcept {
  if (c == nullptr) return;
  stack now;
  capture(&now);
  for (u32 i = 0; i < held_count; ++i) {
    const held_lock& h = held[i];
    const bool both_shared = h.use == lock_use::shared && use == lock_use::shared;
    const bool in_order =
        h.of->rank < c->rank || (h.of == c && c->nests && (h.lock != lock || both_shared));
    if (!in_order && exceptions == 0) fail(h, lock, c, now);
  }
  if (held_count == max_held) {
    std::fprintf(stderr, "kernel: %s: holds %u locks\n", current()->comm, held_count);
    std::abort();
  }
  held[held_count++] = {lock, c, use, now};
}

void lock_order_dropped(const void* lock, const lock_class* c) noexcept {
  if (c == nullptr) return;
  for (u32 i = held_count; i-- > 0;) {
    if (held[i].lock != lock) continue;
    for (u32 k = i + 1; k < held_count; ++k) held[k - 1] = held[k];
    --held_count;
    return;
  }
}

lock_order_exception::lock_order_exception() noexcept { ++exceptions; }
lock_order_exception::~lock_order_exception() { --exceptions; }

}  // namespace kernel

#endif
