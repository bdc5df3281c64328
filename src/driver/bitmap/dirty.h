// SPDX-License-Identifier: GPL-2.0-only
// kdirtyd, which has a bitmap's file marked stale when the bitmap changes after a save, and the
// waiting of writes for it.
//
// A write whose bits a saved file does not hold may not reach the HDD before that file is marked:
// otherwise a power cut would leave a file that looks current and misses the write. A mark that
// cannot be written is tried again for as long as it is needed; a file that can neither be marked
// nor removed is noted in the state folder, and when that fails too the writes end with -EIO. See
// marks.h for the state that decides.
//
// kdirtyd hands a filter's requests to a thread of the filter, one at a time, so that a folder that
// is slow or stuck delays no other node. Another one of the filter's makes the notes about what a
// write has waited for too long: neither the thread that hangs nor a client's.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

[[nodiscard]] int zorv_start_kdirtyd();  // 0 | -EALREADY | thread creation's negative errno
int zorv_stop_kdirtyd();                 // 0 | -ESRCH; queued requests are dropped unwritten
// The filter's threads, before anything is queued for it; zorv_drop_dirty_requests ends them, also
// when this has failed.
//   returns  0 | thread creation's negative errno (logged)
[[nodiscard]] int zorv_start_mark_workers(zorv_filter* f);
int zorv_note_worker(void* filter);  // the body of the second
// Queues the work that the caller has noted under bmp_lock (holds[].noted); what a save has made
// needless since then is not queued.
//   type     a zorv_hold_kind
//   locks    none may be held
//   returns  0 | -ENOMEM (logged; the reserve request is queued instead)
int zorv_sched_write_dirty_flag(zorv_filter* f, u32 type);
// Cancels the bitmap's queued marks: its file is about to be rewritten.
int zorv_kill_dirty_requests(zorv_filter* f, u32 type);  // 0
// Waits until no request of the filter is queued.
//   returns  0 | -ETIMEDOUT (logged)
int zorv_yield_to_dirty_requests(zorv_filter* f, u32 seconds);
// Waits until nothing of the filter's is being worked on, or what is hangs in a file.
//   returns  0 | -EBUSY (it hangs; logged)
[[nodiscard]] int zorv_marks_await_rest(zorv_filter* f);
// Ends the filter's threads and takes its remaining requests away, waiting while one is being
// worked on; afterwards nothing of this touches the filter. Nobody may queue any more.
void zorv_drop_dirty_requests(zorv_filter* f);

// ---- writes that wait ----------------------------------------------------------------------
// How long a write waits for file I/O that makes no progress, and a save for writes under way.
constexpr u64 mark_wait_limit_jiffies = file_limit_jiffies;

// The number of times that waiting writes were let go, to be read before zorv_marks_pending.
u64 zorv_marks_event();
// Whether a write to the filter, already marked, has to wait. Any context.
inline bool zorv_marks_pending(const zorv_filter* f) {
  return f->marks_exposed.load(std::memory_order_acquire) != 0;
}
// Whether it waits for something that cannot be done, and has to end with -EIO.
inline bool zorv_marks_refused(const zorv_filter* f) {
  return f->marks_refused.load(std::memory_order_acquire) != 0;
}
// Sleeps until the number differs from the given one. From the deadline on what is awaited is
// overdue; when it is not settled as long after that, as the state folder may be stuck as well, it
// is refused.
//   locks    none of the driver's may be held
//   returns  false when that moment has come
[[nodiscard]] bool zorv_marks_wait_or_refuse(zorv_filter* f, u64 event, u64 deadline_jiffies);
// A write has waited for too long: has what can be noted in the state folder noted, and refuses the
// rest. It does not wait for that; whatever comes of it ends the waits. Also with locks held.
void zorv_marks_overdue(zorv_filter* f);
// It has waited for as long again: what is still being noted is refused.
void zorv_marks_refuse(zorv_filter* f);

// ---- for whoever makes writes wait -----------------------------------------------------------
// Computes anew which writes have to wait.
//   returns  whether some that waited need not any more: call zorv_marks_let_go after the lock
bool zorv_marks_update(zorv_filter* f) REQUIRES(f->bmp_lock);
void zorv_marks_let_go();

// Holds bmp_lock around a change of what the writes wait for (a bitmap, its dirty flag, its mark
// state, record_due); on release computes anew which writes have to wait and lets the others go.
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
// Queues the work for everything that writes would have to wait for, unless it is queued already.
void zorv_marks_settle(zorv_filter* f);
// Cancels queued marks silently: the file has just been found current.
void zorv_marks_cancel(zorv_filter* f, u32 type) REQUIRES(f->bmp_lock);
// Whether an active request is queued or being handled.
[[nodiscard]] bool zorv_marks_queued(const zorv_filter* f, u32 type) REQUIRES(f->bmp_lock);
// Whether writes would have to wait for it, refused or not; excused: also when they need not since
// the state folder stands in for it.
enum class excused { no, too };
[[nodiscard]] bool zorv_marks_due(zorv_filter* f, u32 type, excused which) REQUIRES(f->bmp_lock);

}  // namespace zorv
