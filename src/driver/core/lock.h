// SPDX-License-Identifier: GPL-2.0-only
// The two owner-tracking locks. Both sleep: never in completion context, never under a spin lock.
// A release by a task that does not hold the lock is logged and changes nothing.
//
// rzrwlock has no writer preference: a reader enters whenever no task holds the lock for writing.
// A task that holds it for writing and asks for it for reading waits for itself forever.
#pragma once

#include "driver/core/lock_order.h"
#include "driver/core/types.h"
#include "kernel/lock.h"

namespace zorv {

struct CAPABILITY("rzrwlock") rzrwlock {
  rzrwlock() = default;
  explicit rzrwlock(const kernel::lock_class& in_order) : place(in_order) {}

  kernel::spinlock_t lock;
  kernel::wait_queue_head wait;
  kernel::task_struct* owner = nullptr;  // the writer
  s32 count = 0;                         // > 0 readers, 0 free, < 0 the writer's depth
  [[no_unique_address]] kernel::lock_place place;
};

struct CAPABILITY("rzmutex") rzmutex {
  rzmutex() = default;
  explicit rzmutex(const kernel::lock_class& in_order) : place(in_order) {}

  kernel::semaphore sem;
  // Read by tasks that do not hold the mutex: only the owner can find itself there.
  std::atomic<kernel::task_struct*> owner{nullptr};
  std::atomic<u32> depth{0};
  std::atomic<u64> since{0};  // jiffies when the owner got it, or has last got on
  [[no_unique_address]] kernel::lock_place place;
};

void rzread_lock(rzrwlock* l) ACQUIRE_SHARED(l);
void rzread_unlock(rzrwlock* l) RELEASE_SHARED(l);
void rzwrite_lock(rzrwlock* l) ACQUIRE(l);  // recursive for the writer
void rzwrite_unlock(rzrwlock* l) RELEASE(l);
void rzmutex_lock(rzmutex* m) ACQUIRE(m);  // recursive for the owner
void rzmutex_unlock(rzmutex* m) RELEASE(m);
[[nodiscard]] bool rzmutex_trylock(rzmutex* m) TRY_ACQUIRE(true, m);  // without waiting
// Locks it unless its owner has had it for longer than that and has not got on: what the owner is
// at hangs.
[[nodiscard]] bool rzmutex_lock_unless_stuck(rzmutex* m, u64 limit_jiffies) TRY_ACQUIRE(true, m);
void rzmutex_got_on(rzmutex* m);  // the owner has

class [[nodiscard]] SCOPED_CAPABILITY rzread_guard {
 public:
  explicit rzread_guard(rzrwlock* l) ACQUIRE_SHARED(l) : l_(l) { rzread_lock(l_); }
  ~rzread_guard() RELEASE_GENERIC() { rzread_unlock(l_); }
  rzread_guard(const rzread_guard&) = delete;
  rzread_guard& operator=(const rzread_guard&) = delete;

 private:
  rzrwlock* l_;
};

class [[nodiscard]] SCOPED_CAPABILITY rzwrite_guard {
 public:
  explicit rzwrite_guard(rzrwlock* l) ACQUIRE(l) : l_(l) { rzwrite_lock(l_); }
  ~rzwrite_guard() RELEASE() { rzwrite_unlock(l_); }
  rzwrite_guard(const rzwrite_guard&) = delete;
  rzwrite_guard& operator=(const rzwrite_guard&) = delete;

 private:
  rzrwlock* l_;
};

// Holds it for reading, unless a writer had it: false then.
class [[nodiscard]] rzread_try {
 public:
  explicit rzread_try(rzrwlock* l);
  ~rzread_try();
  rzread_try(const rzread_try&) = delete;
  rzread_try& operator=(const rzread_try&) = delete;
  explicit operator bool() const { return l_ != nullptr; }

 private:
  rzrwlock* l_;
};

// Holds it, or does not: false then, and logged.
class [[nodiscard]] rzmutex_hold {
 public:
  rzmutex_hold(rzmutex* m, u64 limit_jiffies, const char* caller);
  ~rzmutex_hold();
  rzmutex_hold(const rzmutex_hold&) = delete;
  rzmutex_hold& operator=(const rzmutex_hold&) = delete;
  explicit operator bool() const { return m_ != nullptr; }

 private:
  rzmutex* m_;
};

class [[nodiscard]] SCOPED_CAPABILITY rzmutex_guard {
 public:
  explicit rzmutex_guard(rzmutex* m) ACQUIRE(m) : m_(m) { rzmutex_lock(m_); }
  ~rzmutex_guard() RELEASE() { rzmutex_unlock(m_); }
  rzmutex_guard(const rzmutex_guard&) = delete;
  rzmutex_guard& operator=(const rzmutex_guard&) = delete;

 private:
  rzmutex* m_;
};

}  // namespace zorv
