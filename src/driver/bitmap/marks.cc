// SPDX-License-Identifier: GPL-2.0-only
#include "driver/bitmap/marks.h"

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "kernel/time.h"

namespace zorv {

namespace {

// One queue for all filters: a waiting write holds nothing that keeps its filter alive.
kernel::wait_queue_head marks_wait;
std::atomic<u64> marks_event{0};

// The file may look current and, as it stands or as a save is about to leave it, lacks bits.
bool outdated(const zorv_mark_state& m, bool dirty) {
  return m.loading || (m.maybe_current && (dirty || m.behind)) || (m.saving && dirty);
}

}  // namespace

bool zorv_marks_update(zorv_filter* f) {
  u32 exposed = 0;
  for (u32 type = 0; type < 2; ++type) {
    zorv_mark_state& m = f->marks[type];
    if (!outdated(m, zorv_bmp_of(f, type).dirty->load(std::memory_order_relaxed) != 0)) {
      m.given_up = false;  // the next time is waited for again
    } else if (!m.given_up) {
      exposed |= 1U << type;
    }
  }
  const u32 before = f->marks_exposed.exchange(exposed, std::memory_order_acq_rel);
  return (before & ~exposed) != 0;
}

void zorv_marks_let_go() {
  marks_event.fetch_add(1, std::memory_order_acq_rel);
  kernel::wake_up_all(&marks_wait);
}

u64 zorv_marks_event() { return marks_event.load(std::memory_order_acquire); }

bool zorv_marks_wait(u64 event, u64 deadline_jiffies) {
  const auto changed = [event] { return zorv_marks_event() != event; };
  const s64 left = static_cast<s64>(deadline_jiffies - kernel::jiffies());
  if (left <= 0) return changed();
  return kernel::wait_event_timeout(&marks_wait, changed, static_cast<u64>(left));
}

void zorv_marks_give_up(zorv_filter* f) {
  u32 given_up = 0;
  {
    marks_guard guard(f);
    given_up = f->marks_exposed.load(std::memory_order_relaxed);
    for (u32 type = 0; type < 2; ++type) {
      if ((given_up >> type & 1) != 0) f->marks[type].given_up = true;
    }
  }
  if (given_up == 0) return;
  zorv_log(
      LOG_ERROR,
      "%s(): The stale mark of the %s%s%s bitmap of zorv(%d, %d) is not on disk in time. Letting "
      "writes go on anyway...",
      __func__, (given_up & 2) != 0 ? "Incremental" : "", given_up == 3 ? " and " : "",
      (given_up & 1) != 0 ? "Differential" : "", zorv_blk_major, f->filter_minor);
}

void zorv_marks_file_void(zorv_filter* f, u32 type) {
  marks_guard guard(f);
  f->marks[type].maybe_current = false;
  f->marks[type].behind = false;
}

void zorv_marks_failed(zorv_filter* f, u32 type) {
  marks_guard guard(f);
  f->marks[type].given_up = true;
}

void zorv_marks_settle(zorv_filter* f) {
  for (u32 type = 0; type < 2; ++type) {
    bool queue = false;
    {
      kernel::spin_guard guard(&f->bmp_lock);
      zorv_mark_state& m = f->marks[type];
      // A save or load in progress settles when it ends; a mark that failed is not tried again
      // before the next save.
      queue = m.maybe_current && !m.saving && !m.loading && !m.noted && !m.given_up &&
              zorv_bmp_of(f, type).dirty->load(std::memory_order_relaxed) != 0 &&
              !zorv_marks_queued(f, type);
      if (queue) m.noted = true;
    }
    if (queue) (void)zorv_sched_write_dirty_flag(f, type);
  }
}

}  // namespace zorv
