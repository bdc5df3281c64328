// SPDX-License-Identifier: GPL-2.0-only
// What writes have waited for too long: a thread of the filter's notes it in the state folder. It
// is not the one that hangs in the bitmap folder, nor a client's: the state folder may hang too.
#include <algorithm>

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "driver/core/log.h"
#include "driver/snap/record.h"
#include "kernel/time.h"

namespace zorv {

namespace {

const char* name_of(u32 kind) {
  return kind == zorv_hold_record ? "record of the snaps" : zorv_bmp_type_name(kind);
}

bool is_overdue(zorv_filter* f, u32 kind) {
  kernel::spin_guard guard(&f->bmp_lock);
  return f->holds[kind].overdue;
}

bool any_overdue(zorv_filter* f) {
  kernel::spin_guard guard(&f->bmp_lock);
  for (const zorv_hold& hold : f->holds) {
    if (hold.overdue) return true;
  }
  return false;
}

//   returns  whether that is settled
bool note(zorv_filter* f, u32 kind, u32 tries) {
  {
    kernel::spin_guard guard(&f->bmp_lock);
    f->holds[kind].overdue = zorv_marks_due(f, kind, excused::no);
    if (!f->holds[kind].overdue) return true;  // settled since
  }
  const int rc = kind == zorv_hold_record ? zorv_record_excuse(f) : zorv_block_excuse_bmp(f, kind);
  if (rc == 0 || tries == tries_before_refusal) {
    zorv_log(LOG_ERROR, "%s(): The stale mark of the %s of zorv(%d, %d) is not on disk in time. %s",
             "zorv_marks_overdue", name_of(kind), zorv_blk_major, f->filter_minor,
             rc == 0 ? "It is noted in the state folder that the file is not to be believed."
                     : "That can't be noted either: writes end with an error.");
  }
  marks_guard guard(f);
  f->holds[kind].overdue = rc != 0;
  if (rc != 0 && tries >= tries_before_refusal) f->holds[kind].refused = true;
  return rc == 0;
}

// One try for each.
//   tries    how often each has failed in a row
//   returns  the most of them
u32 note_all(zorv_filter* f, u32 (&tries)[zorv_hold_kinds]) {
  u32 most = 0;
  for (u32 kind = 0; kind < zorv_hold_kinds; ++kind) {
    bool settled = true;
    if (is_overdue(f, kind)) {
      f->note_worker.since.store(kernel::jiffies() | 1);
      settled = note(f, kind, tries[kind] + 1);
      f->note_worker.since.store(0);
    }
    tries[kind] = settled ? 0 : tries[kind] + 1;
    most = std::max(most, tries[kind]);
  }
  return most;
}

}  // namespace

int zorv_note_worker(void* arg) {
  auto* f = static_cast<zorv_filter*>(arg);
  zorv_mark_worker& w = f->note_worker;
  char name[32];
  std::snprintf(name, sizeof name, "knoted-%u", f->filter_minor);
  kernel::daemonize(name);
  const auto ending = [&w] { return w.ending.load(); };
  const auto wanted = [f, &w] { return w.ending.load() || any_overdue(f); };
  u32 tries[zorv_hold_kinds] = {};
  u32 most = 0;
  while (!w.ending.load()) {
    if (most == 0) {
      kernel::wait_event(&w.wait, wanted, kernel::TASK_INTERRUPTIBLE);
    } else {
      const u64 pause = first_pause_jiffies << std::min(most - 1, 4U);
      (void)kernel::wait_event_timeout(&w.wait, ending, std::min(pause, longest_pause_jiffies));
    }
    most = note_all(f, tries);
  }
  return kernel::complete_and_exit(&w.exited, 0);
}

void zorv_marks_overdue(zorv_filter* f) {
  bool wake = false;
  {
    kernel::spin_guard guard(&f->bmp_lock);
    const u32 waiting = f->marks_exposed.load() & ~f->marks_refused.load();
    for (u32 kind = 0; kind < zorv_hold_kinds; ++kind) {
      if ((waiting >> kind & 1) == 0 || f->holds[kind].overdue) continue;
      f->holds[kind].overdue = true;
      wake = true;
    }
  }
  if (wake) kernel::wake_up_all(&f->note_worker.wait);
}

void zorv_marks_refuse(zorv_filter* f) {
  bool logged = false;
  {
    marks_guard guard(f);
    for (zorv_hold& hold : f->holds) {
      if (!hold.overdue || hold.refused) continue;
      hold.refused = logged = true;
    }
  }
  if (!logged) return;
  zorv_log(LOG_ERROR,
           "%s(): The state folder makes no progress: writes to zorv(%d, %d) end with an"
           " error.",
           "zorv_marks_overdue", zorv_blk_major, f->filter_minor);
}

}  // namespace zorv
