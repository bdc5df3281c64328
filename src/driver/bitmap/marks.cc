// SPDX-License-Identifier: GPL-2.0-only
#include "driver/bitmap/marks.h"

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "kernel/time.h"

namespace zorv {

namespace {

// One queue for all filters: a waiting write holds nothing that keeps its filter alive.
kernel::wait_queue_head marks_wait;
std::atomic<u64> marks_event{0};

}  // namespace

bool zorv_marks_due(zorv_filter* f, u32 type, excused which) {
  if (type == zorv_hold_record) return f->record_due;
  const zorv_mark_state& m = f->marks[type];
  if (m.excused && which == excused::no) return false;
  return m.loading || (m.maybe_current && zorv_bmp_of(f, type).dirty->load() != 0);
}

bool zorv_marks_update(zorv_filter* f) {
  u32 exposed = 0;
  u32 refused = 0;
  for (u32 kind = 0; kind < zorv_hold_kinds; ++kind) {
    zorv_hold& hold = f->holds[kind];
    if (zorv_marks_due(f, kind, excused::no)) {
      exposed |= 1U << kind;
    } else {
      hold.refused = hold.overdue = false;
    }
    if (hold.refused) refused |= 1U << kind;
  }
  // A write that sees itself exposed must not miss that it is refused, nor the other way round.
  const u32 refused_before = f->marks_refused.exchange(refused);
  const u32 before = f->marks_exposed.exchange(exposed);
  return (before & ~exposed) != 0 || (refused & ~refused_before) != 0;
}

void zorv_marks_let_go() {
  marks_event.fetch_add(1, std::memory_order_acq_rel);
  kernel::wake_up_all(&marks_wait);
}

u64 zorv_marks_event() { return marks_event.load(std::memory_order_acquire); }

namespace {

//   returns  false when the deadline has passed
bool wait_until(u64 event, u64 deadline_jiffies) {
  const auto changed = [event] { return zorv_marks_event() != event; };
  const s64 left = static_cast<s64>(deadline_jiffies - kernel::jiffies());
  return left > 0 && kernel::wait_event_timeout(&marks_wait, changed, static_cast<u64>(left));
}

}  // namespace

bool zorv_marks_wait_or_refuse(zorv_filter* f, u64 event, u64 deadline_jiffies) {
  if (wait_until(event, deadline_jiffies)) return true;
  zorv_marks_overdue(f);
  if (wait_until(event, deadline_jiffies + mark_wait_limit_jiffies)) return true;
  zorv_marks_refuse(f);
  return false;
}

void zorv_marks_file_void(zorv_filter* f, u32 type) {
  marks_guard guard(f);
  f->marks[type].maybe_current = false;
}

void zorv_marks_settle(zorv_filter* f) {
  for (u32 kind = 0; kind < zorv_hold_kinds; ++kind) {
    bool queue = false;
    {
      kernel::spin_guard guard(&f->bmp_lock);
      const bool loading = kind != zorv_hold_record && f->marks[kind].loading;
      // A load in progress settles when it ends; what has failed is tried again by its thread.
      queue = !loading && !f->holds[kind].noted && !f->holds[kind].retrying &&
              zorv_marks_due(f, kind, excused::no) && !zorv_marks_queued(f, kind);
      if (queue) f->holds[kind].noted = true;
    }
    if (queue) (void)zorv_sched_write_dirty_flag(f, kind);
  }
}

}  // namespace zorv
