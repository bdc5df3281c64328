// SPDX-License-Identifier: GPL-2.0-only
// kdirtyd, the thread that marks a bitmap's file stale when the bitmap changes after a save, and
// the waiting of writes for it.
//
// A write whose bits a saved file does not hold may not reach the HDD before that file is marked:
// otherwise a power cut would leave a file that looks current and misses the write. The wait is
// bounded: when a mark is not on disk within five seconds, or cannot be written, this is logged
// and the write goes on. See marks.h for the state that decides.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

[[nodiscard]] int zorv_start_kdirtyd();  // 0 | -EALREADY | thread creation's negative errno
int zorv_stop_kdirtyd();                 // 0 | -ESRCH; queued requests are dropped unwritten
// Queues the stale mark that the caller has noted under bmp_lock; a mark that a save has made
// needless since then is not queued.
//   locks    none may be held
//   returns  0 | -ENOMEM (logged; the bitmap's reserve request is queued instead)
int zorv_sched_write_dirty_flag(zorv_filter* f, u32 type);
// Cancels the bitmap's queued marks: its file is about to be rewritten.
int zorv_kill_dirty_requests(zorv_filter* f, u32 type);  // 0
// Waits until no request of the filter is queued.
//   returns  0 | -ETIMEDOUT (logged)
int zorv_yield_to_dirty_requests(zorv_filter* f, u32 seconds);
// Takes the filter's remaining requests away from kdirtyd, waiting while it works on one of them;
// afterwards it never touches the filter. Nobody may queue any more.
void zorv_drop_dirty_requests(zorv_filter* f);

// ---- writes that wait ----------------------------------------------------------------------
constexpr u64 mark_wait_limit_jiffies = 5000;

// The number of times that waiting writes were let go, to be read before zorv_marks_pending.
u64 zorv_marks_event();
// Whether a write to the filter, already marked, has to wait. Any context.
inline bool zorv_marks_pending(const zorv_filter* f) {
  return f->marks_exposed.load(std::memory_order_acquire) != 0;
}
// Sleeps until the number differs from the given one, no longer than until the deadline.
//   locks    none of the driver's may be held
//   returns  false when the deadline has passed
[[nodiscard]] bool zorv_marks_wait(u64 event, u64 deadline_jiffies);
// Nobody waits for the present marks of the filter any more (logged).
void zorv_marks_give_up(zorv_filter* f);

// ---- for the bitmap's own operations ---------------------------------------------------------
// Computes anew which writes have to wait.
//   returns  whether some that waited need not any more: call zorv_marks_let_go after the lock
bool zorv_marks_update(zorv_filter* f) REQUIRES(f->bmp_lock);
void zorv_marks_let_go();

// Holds bmp_lock around a change of a bitmap, its dirty flag or its mark state; on release computes
// anew which writes have to wait and lets the others go.
class [[nodiscard]] SCOPED_CAPABILITY marks_guard {
 public:
  explicit marks_guard(zorv_filter* f) ACQUIRE(f->bmp_lock) : f_(f) { f_->bmp_lock.lock(); }
  ~marks_guard() RELEASE() {
    const bool let_go = zorv_marks_update(f_);
    f_->bmp_lock.unlock();
    if (let_go) zorv_marks_let_go();
  }
  marks_guard(const marks_guard&) = delete;
  marks_guard& operator=(const marks_guard&) = delete;

 private:
  zorv_filter* f_;
};

// The file on disk can no longer be taken for current, whatever happens.
void zorv_marks_file_void(zorv_filter* f, u32 type);
// kdirtyd could not write the mark.
void zorv_marks_failed(zorv_filter* f, u32 type);
// Queues a mark for every bitmap whose file may look current and lacks bits, unless one is queued
// or has failed since the last save.
void zorv_marks_settle(zorv_filter* f);
// Cancels queued marks silently: the file has just been found current.
void zorv_marks_cancel(zorv_filter* f, u32 type) REQUIRES(f->bmp_lock);
// Whether an active request is queued or being handled.
[[nodiscard]] bool zorv_marks_queued(const zorv_filter* f, u32 type) REQUIRES(f->bmp_lock);

}  // namespace zorv
