// SPDX-License-Identifier: GPL-2.0-only
#include "driver/core/lock.h"

#include "driver/core/log.h"

namespace zorv {

using kernel::current;

namespace {

// Sleeps until can_enter() holds; it is tested under the lock's own spin lock, which is held on
// entry and on return and given up while asleep.
template <class Cond>
void wait_until(rzrwlock* l, Cond can_enter) REQUIRES(l->lock) {
  while (!can_enter()) {
    kernel::wait_queue_entry entry;
    kernel::add_wait_queue(&l->wait, &entry);
    kernel::set_current_state(kernel::TASK_UNINTERRUPTIBLE);
    while (!can_enter()) {
      kernel::spin_unlock(&l->lock);
      kernel::schedule();
      kernel::spin_lock(&l->lock);
      kernel::set_current_state(kernel::TASK_UNINTERRUPTIBLE);
    }
    kernel::set_current_state(kernel::TASK_RUNNING);
    kernel::remove_wait_queue(&l->wait, &entry);
  }
}

}  // namespace

// The bodies implement the capability, so the analysis has nothing to check in them.
void rzread_lock(rzrwlock* l) NO_THREAD_SAFETY_ANALYSIS {
  kernel::might_sleep("rzread_lock");
  kernel::spin_lock(&l->lock);
  wait_until(l, [l] { return l->count >= 0; });
  ++l->count;
  kernel::spin_unlock(&l->lock);
}

void rzread_unlock(rzrwlock* l) NO_THREAD_SAFETY_ANALYSIS {
  bool misuse = false;
  kernel::spin_lock(&l->lock);
  if (l->count < 1) {
    misuse = true;
  } else if (--l->count == 0) {
    kernel::wake_up(&l->wait);
  }
  kernel::spin_unlock(&l->lock);
  if (misuse) zorv_log(LOG_ERROR, "rzread_unlock(): Can't release RO lock: not locked.");
}

void rzwrite_lock(rzrwlock* l) NO_THREAD_SAFETY_ANALYSIS {
  kernel::might_sleep("rzwrite_lock");
  kernel::spin_lock(&l->lock);
  if (!(l->count < 0 && l->owner == current())) {
    wait_until(l, [l] { return l->count == 0; });
    l->owner = current();
  }
  --l->count;
  kernel::spin_unlock(&l->lock);
}

void rzwrite_unlock(rzrwlock* l) NO_THREAD_SAFETY_ANALYSIS {
  bool misuse = false;
  kernel::spin_lock(&l->lock);
  if (l->count < 0 && l->owner == current()) {
    if (++l->count == 0) {
      l->owner = nullptr;
      kernel::wake_up(&l->wait);
    }
  } else {
    misuse = true;
  }
  kernel::spin_unlock(&l->lock);
  if (misuse) zorv_log(LOG_ERROR, "rzwrite_unlock(): Can't release RW lock: not owner.");
}

void rzmutex_lock(rzmutex* m) NO_THREAD_SAFETY_ANALYSIS {
  if (m->depth.load(std::memory_order_relaxed) != 0 &&
      m->owner.load(std::memory_order_relaxed) == current()) {
    m->depth.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  kernel::down(&m->sem);
  m->depth.store(0, std::memory_order_relaxed);
  m->owner.store(current(), std::memory_order_relaxed);
  m->depth.fetch_add(1, std::memory_order_relaxed);
}

void rzmutex_unlock(rzmutex* m) NO_THREAD_SAFETY_ANALYSIS {
  if (m->depth.load(std::memory_order_relaxed) == 0 ||
      m->owner.load(std::memory_order_relaxed) != current()) {
    zorv_log(LOG_ERROR, "rzmutex_unlock(): Can't unlock mutex: not owner.");
    return;
  }
  if (m->depth.fetch_sub(1, std::memory_order_relaxed) == 1) {
    m->owner.store(nullptr, std::memory_order_relaxed);
    kernel::up(&m->sem);
  }
}

}  // namespace zorv
