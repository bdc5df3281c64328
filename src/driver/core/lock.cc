// SPDX-License-Identifier: GPL-2.0-only
#include "driver/core/lock.h"

#include "driver/core/log.h"
#include "kernel/time.h"

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
  l->place.taking(l, kernel::lock_use::shared);
  kernel::spin_lock(&l->lock);
  wait_until(l, [l] { return l->count >= 0; });
  ++l->count;
  kernel::spin_unlock(&l->lock);
}

rzread_try::rzread_try(rzrwlock* l) NO_THREAD_SAFETY_ANALYSIS : l_(nullptr) {
  kernel::spin_lock(&l->lock);
  if (l->count >= 0) {
    ++l->count;
    l_ = l;
  }
  kernel::spin_unlock(&l->lock);
  if (l_ != nullptr) l->place.taking(l, kernel::lock_use::shared);
}

rzread_try::~rzread_try() NO_THREAD_SAFETY_ANALYSIS {
  if (l_ != nullptr) rzread_unlock(l_);
}

void rzread_unlock(rzrwlock* l) NO_THREAD_SAFETY_ANALYSIS {
  bool misuse = false;
  kernel::spin_lock(&l->lock);
  if (l->count < 1) {
    misuse = true;
  } else {
    l->place.dropped(l);
    if (--l->count == 0) kernel::wake_up(&l->wait);
  }
  kernel::spin_unlock(&l->lock);
  if (misuse) zorv_log(LOG_ERROR, "rzread_unlock(): Can't release RO lock: not locked.");
}

void rzwrite_lock(rzrwlock* l) NO_THREAD_SAFETY_ANALYSIS {
  kernel::might_sleep("rzwrite_lock");
  kernel::spin_lock(&l->lock);
  if (!(l->count < 0 && l->owner == current())) {
    l->place.taking(l, kernel::lock_use::exclusive);
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
      l->place.dropped(l);
      l->owner = nullptr;
      kernel::wake_up(&l->wait);
    }
  } else {
    misuse = true;
  }
  kernel::spin_unlock(&l->lock);
  if (misuse) zorv_log(LOG_ERROR, "rzwrite_unlock(): Can't release RW lock: not owner.");
}

namespace {

bool enter_again(rzmutex* m) {
  if (m->depth.load(std::memory_order_relaxed) == 0 ||
      m->owner.load(std::memory_order_relaxed) != current()) {
    return false;
  }
  m->depth.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void become_owner(rzmutex* m) {
  m->since.store(kernel::jiffies(), std::memory_order_relaxed);
  m->owner.store(current(), std::memory_order_relaxed);
  m->depth.store(1, std::memory_order_relaxed);
}

}  // namespace

void rzmutex_lock(rzmutex* m) NO_THREAD_SAFETY_ANALYSIS {
  if (enter_again(m)) return;
  m->place.taking(m, kernel::lock_use::exclusive);
  kernel::down(&m->sem);
  become_owner(m);
}

bool rzmutex_trylock(rzmutex* m) NO_THREAD_SAFETY_ANALYSIS {
  if (enter_again(m)) return true;
  if (!kernel::down_timeout(&m->sem, 0)) return false;
  m->place.taking(m, kernel::lock_use::exclusive);
  become_owner(m);
  return true;
}

bool rzmutex_lock_unless_stuck(rzmutex* m, u64 limit_jiffies) NO_THREAD_SAFETY_ANALYSIS {
  if (enter_again(m)) return true;
  m->place.taking(m, kernel::lock_use::exclusive);
  constexpr u64 moment = 10;  // for who has just got it to say so
  for (;;) {
    const u64 since = m->since.load(std::memory_order_relaxed);
    const s64 left = static_cast<s64>(since + limit_jiffies - kernel::jiffies());
    if (kernel::down_timeout(&m->sem, left > 0 ? static_cast<u64>(left) : moment)) {
      become_owner(m);
      return true;
    }
    if (left <= 0 && m->since.load(std::memory_order_relaxed) == since) {
      m->place.dropped(m);
      return false;
    }
  }
}

void rzmutex_got_on(rzmutex* m) { m->since.store(kernel::jiffies(), std::memory_order_relaxed); }

rzmutex_hold::rzmutex_hold(rzmutex* m, u64 limit_jiffies,
                           const char* caller) NO_THREAD_SAFETY_ANALYSIS
    : m_(rzmutex_lock_unless_stuck(m, limit_jiffies) ? m : nullptr) {
  if (m_ != nullptr) return;
  zorv_log(LOG_ERROR, "%s(): Another task makes no progress in the files that are needed", caller);
}

rzmutex_hold::~rzmutex_hold() NO_THREAD_SAFETY_ANALYSIS {
  if (m_ != nullptr) rzmutex_unlock(m_);
}

void rzmutex_unlock(rzmutex* m) NO_THREAD_SAFETY_ANALYSIS {
  if (m->depth.load(std::memory_order_relaxed) == 0 ||
      m->owner.load(std::memory_order_relaxed) != current()) {
    zorv_log(LOG_ERROR, "rzmutex_unlock(): Can't unlock mutex: not owner.");
    return;
  }
  if (m->depth.fetch_sub(1, std::memory_order_relaxed) == 1) {
    m->place.dropped(m);
    m->owner.store(nullptr, std::memory_order_relaxed);
    kernel::up(&m->sem);
  }
}

}  // namespace zorv
