// SPDX-License-Identifier: GPL-2.0-only
// kdirtyd: the thread that marks a bitmap's file stale when the bitmap changes after a save.
//
// A write whose bits a saved file does not hold may not reach the HDD before that file is marked:
// otherwise a power cut would leave a file that looks current and misses the write. Marks are
// handled in the order in which they were queued, so a mark is known by its ticket; a write whose
// filter has a ticket that is not handled yet, or whose bitmap changed while a save is writing the
// file, waits before it is routed. The wait is bounded: when a mark is not on disk within five
// seconds it is logged and the write goes on.
#pragma once

#include "driver/core/blkdev.h"

namespace zorv {

int zorv_start_kdirtyd();  // 0 | -EALREADY | thread creation's negative errno
int zorv_stop_kdirtyd();   // 0 | -ESRCH; queued requests are dropped unwritten
int zorv_sched_write_dirty_flag(zorv_filter* f, u32 type);  // 0 | -ENOMEM
int zorv_kill_dirty_requests(zorv_filter* f, u32 type);     // 0
// Waits until no request of the filter is queued.
//   returns  0 | -ETIMEDOUT (logged)
int zorv_yield_to_dirty_requests(zorv_filter* f, u32 seconds);
// Takes the filter's remaining requests away from kdirtyd; afterwards it never touches the filter.
void zorv_drop_dirty_requests(zorv_filter* f);

constexpr u64 mark_wait_limit_jiffies = 5000;

// The state of the marks as one number, to be read before zorv_marks_pending.
u64 zorv_marks_event();
// Whether a write to the filter, already marked, still has to wait. Any context.
bool zorv_marks_pending(zorv_filter* f);
// Sleeps until the state has changed from the given one, no longer than until the deadline.
//   locks    none of the driver's may be held
//   returns  false when the deadline has passed
bool zorv_marks_wait(u64 event, u64 deadline);
// Nobody waits for the present marks of the filter any more (logged).
void zorv_marks_give_up(zorv_filter* f);
// A save is between taking its copy and its end; called under bmp_lock.
void zorv_marks_save_begin(zorv_filter* f, u32 type);
void zorv_marks_save_end(zorv_filter* f, u32 type);

}  // namespace zorv
