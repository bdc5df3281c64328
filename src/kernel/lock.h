// SPDX-License-Identifier: GPL-2.0-only
// Spin locks, wait queues, semaphores and completions.
//
// Spin locks are for a few instructions: nothing that sleeps, completes a bio, logs or calls
// back may happen under one, and might_sleep() aborts when something does.
#pragma once

#include <atomic>

#include "kernel/annotations.h"
#include "kernel/list.h"
#include "kernel/lock_order.h"
#include "kernel/task.h"
#include "kernel/time.h"
#include "kernel/types.h"

namespace kernel {

class CAPABILITY("spinlock") spinlock_t {
 public:
  constexpr spinlock_t() = default;
  constexpr explicit spinlock_t(const lock_class& place) : place_(place) {}
  spinlock_t(const spinlock_t&) = delete;
  spinlock_t& operator=(const spinlock_t&) = delete;

  void lock() noexcept ACQUIRE();
  void unlock() noexcept RELEASE();
  [[nodiscard]] bool contended() const noexcept {
    return waiting_.load(std::memory_order_relaxed) != 0;
  }

 private:
  std::atomic<u32> held_{0};
  std::atomic<u32> waiting_{0};
  [[no_unique_address]] lock_place place_;
};

inline void spin_lock(spinlock_t* l) noexcept ACQUIRE(l) { l->lock(); }
inline void spin_unlock(spinlock_t* l) noexcept RELEASE(l) { l->unlock(); }
// Whether tasks wait for it. The lock is not fair: who takes it again and again, each time for
// long, asks this in between and stays away while it is true.
[[nodiscard]] inline bool spin_is_contended(const spinlock_t* l) noexcept { return l->contended(); }
class [[nodiscard]] SCOPED_CAPABILITY spin_guard {
 public:
  explicit spin_guard(spinlock_t* l) noexcept ACQUIRE(l) : l_(l) { l_->lock(); }
  ~spin_guard() RELEASE() { l_->unlock(); }
  spin_guard(const spin_guard&) = delete;
  spin_guard& operator=(const spin_guard&) = delete;

 private:
  spinlock_t* l_;
};

struct wait_queue_entry {
  wait_queue_entry() : task(current()) {}
  task_struct* task;
  bool exclusive = false;
  list_node<wait_queue_entry> link{this};
};

struct wait_queue_head {
  spinlock_t lock;
  list_of<wait_queue_entry> entries;
};

// add_* and remove_* take the queue's lock. A waiter always removes its entry itself, so that
// the lock tells it that no waker uses the entry any more.
void add_wait_queue(wait_queue_head* q, wait_queue_entry* e);
void add_wait_queue_exclusive(wait_queue_head* q, wait_queue_entry* e);
void remove_wait_queue(wait_queue_head* q, wait_queue_entry* e);
// Adds the entry if it is not queued and sets the current task's state, in this order.
void prepare_to_wait(wait_queue_head* q, wait_queue_entry* e, u32 state);
// Sets the current task running and removes the entry if it is queued.
void finish_wait(wait_queue_head* q, wait_queue_entry* e);

// Wakes every non-exclusive waiter whose state is in mode, and at most nr_exclusive exclusive
// ones (0: all). Any context.
void wake_up_nr(wait_queue_head* q, u32 mode, int nr_exclusive);
inline void wake_up(wait_queue_head* q) { wake_up_nr(q, TASK_NORMAL, 1); }
inline void wake_up_all(wait_queue_head* q) { wake_up_nr(q, TASK_NORMAL, 0); }

// Sleeps until done() is true. done is tested without any lock of the queue.
template <class Cond>
void wait_event(wait_queue_head* q, Cond done, u32 state = TASK_UNINTERRUPTIBLE) {
  might_sleep("wait_event");
  if (done()) return;
  wait_queue_entry e;
  for (;;) {
    prepare_to_wait(q, &e, state);
    if (done()) break;
    schedule();
  }
  finish_wait(q, &e);
}

// The same with a limit in jiffies. Returns true when done() became true.
template <class Cond>
[[nodiscard]] bool wait_event_timeout(wait_queue_head* q, Cond done, u64 limit_jiffies) {
  might_sleep("wait_event_timeout");
  if (done()) return true;
  const u64 deadline = jiffies() + limit_jiffies;
  wait_queue_entry e;
  bool result = false;
  for (;;) {
    prepare_to_wait(q, &e, TASK_UNINTERRUPTIBLE);
    if ((result = done())) break;
    const s64 left = static_cast<s64>(deadline - jiffies());
    if (left <= 0) break;
    schedule_timeout(left);
  }
  finish_wait(q, &e);
  return result;
}

struct semaphore {
  spinlock_t lock;
  u32 count GUARDED_BY(lock) = 1;
  wait_queue_head wait;
};
void down(semaphore* s);  // may sleep, uninterruptibly
// The same with a limit in jiffies; false: it has passed.
[[nodiscard]] bool down_timeout(semaphore* s, u64 limit_jiffies);
void up(semaphore* s);

struct completion {
  u32 done = 0;  // under wait.lock
  wait_queue_head wait;
};
void init_completion(completion* c);
// Once complete() has let the waiter go it does not touch *c again, so the waiter may free it.
void complete(completion* c);             // any context
void wait_for_completion(completion* c);  // may sleep

}  // namespace kernel
