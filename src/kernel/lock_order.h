// SPDX-License-Identifier: GPL-2.0-only
// The order of locks, watched while the program runs: in builds with ZORV_LOCK_ORDER a lock that is
// taken against it ends the program with the stacks of both. Elsewhere this costs nothing.
//
// A lock without a class is not watched.
#pragma once

#include "kernel/types.h"

namespace kernel {

// Locks that stand at one place in the order. A task takes classes in rising order of their ranks.
struct lock_class {
  const char* name;
  u32 rank;
  bool nests;  // a task may hold several of the class; whose comes first is their users' affair
};
enum class lock_use { shared, exclusive };

#ifdef ZORV_LOCK_ORDER
// Before the lock is waited for, so that a deadlock is told, not met. What a recursive lock's owner
// takes again is not told; a lock of a class that nests may be shared twice. Any context.
void lock_order_taking(const void* lock, const lock_class* c, lock_use use) noexcept;
// The locks of a task may be let go in any order.
void lock_order_dropped(const void* lock, const lock_class* c) noexcept;
// While one lives its task is not told of an order. Who makes one says why nobody can be waiting
// the other way round.
class lock_order_exception {
 public:
  lock_order_exception() noexcept;
  ~lock_order_exception();
  lock_order_exception(const lock_order_exception&) = delete;
  lock_order_exception& operator=(const lock_order_exception&) = delete;
};
#else
inline void lock_order_taking(const void*, const lock_class*, lock_use) noexcept {}
inline void lock_order_dropped(const void*, const lock_class*) noexcept {}
class lock_order_exception {
 public:
  lock_order_exception() noexcept {}  // not trivial, or it would be an unused variable
};
#endif

// A lock's place, for a member of it; no bytes where nothing is watched.
class lock_place {
 public:
  constexpr lock_place() = default;
#ifdef ZORV_LOCK_ORDER
  constexpr explicit lock_place(const lock_class& c) : class_(&c) {}
  void taking(const void* lock, lock_use use) const noexcept {
    lock_order_taking(lock, class_, use);
  }
  void dropped(const void* lock) const noexcept { lock_order_dropped(lock, class_); }

 private:
  const lock_class* class_ = nullptr;
#else
  constexpr explicit lock_place(const lock_class&) {}
  void taking(const void*, lock_use) const noexcept {}
  void dropped(const void*) const noexcept {}
#endif
};

}  // namespace kernel
