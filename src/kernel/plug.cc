// SPDX-License-Identifier: GPL-2.0-only
// Plugging, and the thread that unplugs what nobody else does.
//
// A queue's timer is set when a bio is plugged and no timer is set; it is not taken back when
// somebody unplugs before. So a busy queue costs one wake-up of the thread every 3 ms and not one
// per batch. All timers run equally long: the queues wait in the order of their due times.
#include <pthread.h>

#include <csignal>
#include <ctime>

#include "kernel/blkdev.h"
#include "kernel/list.h"

namespace kernel {
namespace {

constexpr u64 unplug_delay_ns = 3000000;

u64 monotonic_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<u64>(ts.tv_sec) * 1000000000 + static_cast<u64>(ts.tv_nsec);
}

struct unplug_timer {
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t changed;  // on the monotonic clock
  list_of<request_queue> due;
  bool running = false;
  bool idle = false;  // the thread waits without a limit

  unplug_timer() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&changed, &attr);
    pthread_condattr_destroy(&attr);
  }
};

// Never destroyed: its thread runs until the process ends.
unplug_timer& timer() {
  static auto* t = new unplug_timer;
  return *t;
}

// The next queue whose time has come, with a user counted.
request_queue* next_due(unplug_timer* t) {
  pthread_mutex_lock(&t->lock);
  for (;;) {
    request_queue* q = t->due.front();
    if (q == nullptr) {
      t->idle = true;
      pthread_cond_wait(&t->changed, &t->lock);
      t->idle = false;
    } else if (monotonic_ns() >= q->plug_due_ns) {
      q->plug_link.unlink();
      q->plug_users.fetch_add(1);
      pthread_mutex_unlock(&t->lock);
      return q;
    } else {
      const timespec until{static_cast<time_t>(q->plug_due_ns / 1000000000),
                           static_cast<long>(q->plug_due_ns % 1000000000)};
      pthread_cond_timedwait(&t->changed, &t->lock, &until);
    }
  }
}

// True when bios are waiting. The next bio that is plugged sets the timer again.
bool take_timer(request_queue* q) {
  spin_guard lock(&q->plug_lock);
  q->plug_timer = false;
  return q->plug_head != nullptr;
}

// The thread is every queue's, so a disk that has to wait for its medium does it elsewhere.
void unplug_from_timer(request_queue* q) {
  if (q->unplug_late != nullptr && q->unplug.load(std::memory_order_relaxed) != nullptr) {
    q->unplug_late(q);
  } else {
    blk_unplug(q);
  }
}

void* timer_main(void*) noexcept {
  daemonize("kblockd");
  for (;;) {
    request_queue* q = next_due(&timer());
    if (take_timer(q)) unplug_from_timer(q);
    q->plug_users.fetch_sub(1);
  }
}

bool start_timer_thread() {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const bool started = pthread_create(&thread, nullptr, timer_main, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (started) pthread_detach(thread);
  return started;
}

// False when there is no thread to do it.
bool set_timer(request_queue* q) {
  unplug_timer* t = &timer();
  pthread_mutex_lock(&t->lock);
  if (!t->running) t->running = start_timer_thread();
  if (t->running) {
    q->plug_due_ns = monotonic_ns() + unplug_delay_ns;
    t->due.push_back(&q->plug_link);
    if (t->idle) pthread_cond_signal(&t->changed);
  }
  const bool set = t->running;
  pthread_mutex_unlock(&t->lock);
  return set;
}

void cancel_timer(request_queue* q) {
  pthread_mutex_lock(&timer().lock);
  q->plug_link.unlink();
  pthread_mutex_unlock(&timer().lock);
  while (q->plug_users.load() != 0) yield();
}

}  // namespace

void blk_plug_bio(request_queue* q, bio* b) {
  bool set = false;
  b->bi_next = nullptr;
  {
    spin_guard lock(&q->plug_lock);
    (q->plug_head == nullptr ? q->plug_head : q->plug_tail->bi_next) = b;
    q->plug_tail = b;
    set = !q->plug_timer;
    q->plug_timer = true;
  }
  if (set && !set_timer(q) && take_timer(q)) blk_unplug(q);
}

bio* blk_take_plugged(request_queue* q) {
  spin_guard lock(&q->plug_lock);
  bio* all = q->plug_head;
  q->plug_head = q->plug_tail = nullptr;
  return all;
}

void blk_unplug(request_queue* q) {
  if (const unplug_fn unplug = q->unplug.load(std::memory_order_relaxed)) unplug(q);
}

void blk_cleanup_queue(request_queue* q) {
  might_sleep("blk_cleanup_queue");
  cancel_timer(q);
  q->unplug.store(nullptr);
  for (bio* b = blk_take_plugged(q); b != nullptr;) {
    bio* next = b->bi_next;
    bio_endio(b, -EIO);
    b = next;
  }
  blk_release_queue(q);
}

}  // namespace kernel
