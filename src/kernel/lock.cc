// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/lock.h"

#include <sched.h>

#include <ctime>

#include "kernel/park.h"

namespace kernel {
namespace {

inline void cpu_relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// A holder is on its processor, or the host has taken it away: first wait, then give way, then
// stay away for a while.
void wait_for_release(const std::atomic<u32>& held) noexcept {
  constexpr u32 spins = 100, yields = 200;
  for (u32 i = 0; held.load(std::memory_order_relaxed) != 0; ++i) {
    if (i < spins) {
      cpu_relax();
    } else if (i < spins + yields) {
      sched_yield();
    } else {
      const timespec nap{0, 50000};
      nanosleep(&nap, nullptr);
    }
  }
}

// Tasks to get going once the queue's lock has been released.
class unpark_list {
 public:
  void add(task_struct* t) noexcept {
    if (count_ == max_) {
      task_unpark(t);
    } else {
      tasks_[count_++] = t;
    }
  }
  void run() noexcept {
    for (u32 i = 0; i < count_; ++i) task_unpark(tasks_[i]);
  }

 private:
  static constexpr u32 max_ = 16;
  task_struct* tasks_[max_];
  u32 count_ = 0;
};

void wake_locked(wait_queue_head* q, u32 mode, int nr_exclusive, unpark_list* parked)
    REQUIRES(q->lock) {
  for (wait_queue_entry& e : q->entries) {
    const bool exclusive = e.exclusive;
    task_struct* task = e.task;
    bool unpark = false;
    if (!task_make_running(task, mode, &unpark)) continue;
    if (unpark) parked->add(task);
    if (exclusive && --nr_exclusive == 0) break;
  }
}

void enqueue_locked(wait_queue_head* q, wait_queue_entry* e) REQUIRES(q->lock) {
  if (e->link.linked()) return;
  if (e->exclusive) {
    q->entries.push_back(&e->link);
  } else {
    q->entries.push_front(&e->link);
  }
}

}  // namespace

void spinlock_t::lock() noexcept NO_THREAD_SAFETY_ANALYSIS {
  place_.taking(this, lock_use::exclusive);
  if (held_.exchange(1, std::memory_order_acquire) != 0) {
    waiting_.fetch_add(1, std::memory_order_relaxed);
    do {
      wait_for_release(held_);
    } while (held_.exchange(1, std::memory_order_acquire) != 0);
    waiting_.fetch_sub(1, std::memory_order_relaxed);
  }
  ++current()->spin_depth;
}

// The releasing store comes last: whoever takes the lock next may free it.
void spinlock_t::unlock() noexcept NO_THREAD_SAFETY_ANALYSIS {
  --current()->spin_depth;
  place_.dropped(this);
  held_.store(0, std::memory_order_release);
}

void add_wait_queue(wait_queue_head* q, wait_queue_entry* e) {
  spin_guard lock(&q->lock);
  e->exclusive = false;
  enqueue_locked(q, e);
}

void add_wait_queue_exclusive(wait_queue_head* q, wait_queue_entry* e) {
  spin_guard lock(&q->lock);
  e->exclusive = true;
  enqueue_locked(q, e);
}

void remove_wait_queue(wait_queue_head* q, wait_queue_entry* e) {
  spin_guard lock(&q->lock);
  e->link.unlink();
}

void prepare_to_wait(wait_queue_head* q, wait_queue_entry* e, u32 state) {
  spin_guard lock(&q->lock);
  enqueue_locked(q, e);
  set_current_state(state);
}

void finish_wait(wait_queue_head* q, wait_queue_entry* e) {
  set_current_state(TASK_RUNNING);
  remove_wait_queue(q, e);
}

void wake_up_nr(wait_queue_head* q, u32 mode, int nr_exclusive) {
  unpark_list parked;
  {
    spin_guard lock(&q->lock);
    wake_locked(q, mode, nr_exclusive, &parked);
  }
  parked.run();
}

void down(semaphore* s) {
  might_sleep("down");
  s->lock.lock();
  if (s->count > 0) {
    --s->count;
    s->lock.unlock();
    return;
  }
  wait_queue_entry e;
  e.exclusive = true;
  for (;;) {
    prepare_to_wait(&s->wait, &e, TASK_UNINTERRUPTIBLE);
    if (s->count > 0) break;
    s->lock.unlock();
    schedule();
    s->lock.lock();
  }
  --s->count;
  finish_wait(&s->wait, &e);
  s->lock.unlock();
}

bool down_timeout(semaphore* s, u64 limit_jiffies) {
  might_sleep("down_timeout");
  const u64 deadline = jiffies() + limit_jiffies;
  wait_queue_entry e;
  e.exclusive = true;
  s->lock.lock();
  bool taken = s->count > 0;
  while (!taken) {
    const s64 left = static_cast<s64>(deadline - jiffies());
    if (left <= 0) break;
    prepare_to_wait(&s->wait, &e, TASK_UNINTERRUPTIBLE);
    s->lock.unlock();
    schedule_timeout(left);
    s->lock.lock();
    taken = s->count > 0;
  }
  if (taken) --s->count;
  finish_wait(&s->wait, &e);
  s->lock.unlock();
  return taken;
}

void up(semaphore* s) {
  unpark_list parked;
  {
    spin_guard lock(&s->lock);
    ++s->count;
    spin_guard wait_lock(&s->wait.lock);
    wake_locked(&s->wait, TASK_NORMAL, 1, &parked);
  }
  parked.run();
}

void init_completion(completion* c) {
  spin_guard lock(&c->wait.lock);
  c->done = 0;
}

void complete(completion* c) {
  unpark_list parked;
  {
    spin_guard lock(&c->wait.lock);
    ++c->done;
    wake_locked(&c->wait, TASK_NORMAL, 1, &parked);
  }
  parked.run();
}

void wait_for_completion(completion* c) {
  might_sleep("wait_for_completion");
  wait_queue_entry e;
  e.exclusive = true;
  c->wait.lock.lock();
  while (c->done == 0) {
    enqueue_locked(&c->wait, &e);
    set_current_state(TASK_UNINTERRUPTIBLE);
    c->wait.lock.unlock();
    schedule();
    c->wait.lock.lock();
  }
  --c->done;
  set_current_state(TASK_RUNNING);
  e.link.unlink();
  c->wait.lock.unlock();
}

}  // namespace kernel
