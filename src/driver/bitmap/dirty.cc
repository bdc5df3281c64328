// SPDX-License-Identifier: GPL-2.0-only
// The queue of what filters' writes wait for, and the threads that see to it.
//
// kdirtyd takes the oldest request whose filter has none in hand and hands it to the filter's own
// thread. What could not be done is tried again by that.
//
// Locks: file_mutex, bmp_mutex, bmp_lock, req_spin, in this order. A save cancels marks while it
// holds bmp_mutex; a thread takes the first two with no other lock held and looks again whether the
// mark is still due, so a mark never lands behind the save that made it needless.
#include "driver/bitmap/dirty.h"

#include "driver/bitmap/bitmap.h"
#include "driver/core/log.h"
#include "driver/snap/record.h"
#include "kernel/mem.h"
#include "kernel/task.h"
#include "kernel/time.h"

namespace zorv {

namespace {

kernel::spinlock_t req_spin{order::dirty_requests};
kernel::list_of<zorv_dirty_req> req_list GUARDED_BY(req_spin);  // oldest first
// The filter that kdirtyd has in hand.
const zorv_filter* busy_filter GUARDED_BY(req_spin) = nullptr;
std::atomic<s32> req_cnt{0};  // length of req_list
kernel::wait_queue_head req_wait;
kernel::wait_queue_head idle_wait;  // woken after each request
int kdirtyd_started = 0;            // load and unload only
std::atomic<int> kdirtyd_abort{0};
kernel::completion kdirtyd_exited;

constexpr u64 excused_pause_jiffies = 60000;  // when no write waits for it

void append_locked(zorv_dirty_req* req, zorv_filter* f, u32 type) REQUIRES(req_spin) {
  req->active = 1;
  req->filter = f;
  req->type = static_cast<s32>(type);
  req_list.push_back(&req->link);
  req_cnt.fetch_add(1);
}

void append_reserve_locked(zorv_dirty_req* req, zorv_filter* f, u32 type) REQUIRES(req_spin) {
  if (!req->link.linked()) {
    req->reserve = true;
    append_locked(req, f, type);
  } else if (req->active == 0) {
    req->again = true;  // cancelled, perhaps being dropped at this moment: it takes another turn
  }
}

void remove_locked(zorv_dirty_req* req) REQUIRES(req_spin) {
  req->link.unlink();
  req_cnt.fetch_sub(1);
}

void free_req(zorv_dirty_req* req) {
  if (req != nullptr && !req->reserve) kernel::kdelete(req);
}

// The oldest request whose filter has none in hand.
zorv_dirty_req* next_locked() REQUIRES(req_spin) {
  for (zorv_dirty_req& req : req_list) {
    if (!req.filter->worker.busy) return &req;
  }
  return nullptr;
}

bool has_next() {
  kernel::spin_guard guard(&req_spin);
  return next_locked() != nullptr;
}

// Takes a request that has been worked on off the list, or leaves a reserve that was wanted anew.
void finish(zorv_dirty_req* req) {
  {
    kernel::spin_guard guard(&req_spin);
    remove_locked(req);
    req->in_hand = false;
    req->filter->worker.busy = false;
    if (req->reserve && req->again) {
      req->again = false;
      append_locked(req, req->filter, static_cast<u32>(req->type));
    }
    if (req->reserve) req = nullptr;
  }
  free_req(req);
  kernel::wake_up(&req_wait);
  kernel::wake_up_all(&idle_wait);
}

bool is_active(const zorv_dirty_req* req) {
  kernel::spin_guard guard(&req_spin);
  return req->active != 0;
}

zorv_dirty_req* in_hand_of(const zorv_filter* f) {
  kernel::spin_guard guard(&req_spin);
  for (zorv_dirty_req& req : req_list) {
    if (req.in_hand && req.filter == f) return &req;
  }
  return nullptr;
}

void set_refused(zorv_filter* f, u32 kind, bool refused) {
  marks_guard guard(f);
  f->holds[kind].refused = refused;
}

bool due(zorv_filter* f, u32 kind) {
  kernel::spin_guard guard(&f->bmp_lock);
  return zorv_marks_due(f, kind, excused::too);
}

// One try. Returns whether nothing is left to be done.
bool work_for(zorv_filter* f, u32 kind, u32 tries) {
  int rc = 0;
  if (due(f, kind)) {
    f->worker.since.store(kernel::jiffies() | 1);
    rc = kind == zorv_hold_record ? zorv_record_write(f) : zorv_block_void_bmp(f, kind);
    f->worker.since.store(0);
  }
  if (rc >= 0) {
    set_refused(f, kind, false);
  } else if (tries >= tries_before_refusal) {
    set_refused(f, kind, true);
  }
  const bool done = !due(f, kind);
  kernel::spin_guard guard(&f->bmp_lock);
  f->holds[kind].retrying = !done;
  return done;
}

// ---- a filter's thread -------------------------------------------------------------------------

// False: a save has settled since then what had failed.
bool is_retrying(zorv_filter* f, u32 kind) {
  kernel::spin_guard guard(&f->bmp_lock);
  return f->holds[kind].retrying;
}

// What has failed and is tried again.
struct failures {
  u32 kinds = 0;
  u32 tries[zorv_hold_kinds] = {};  // of each of them
  u64 pause = first_pause_jiffies;

  void first_try(zorv_filter* f, u32 kind) {
    const u32 bit = 1U << kind;
    if ((kinds & bit) == 0 || !is_retrying(f, kind)) tries[kind] = 1;
    kinds &= ~bit;
    if (work_for(f, kind, tries[kind])) return;
    kinds |= bit;
    pause = first_pause_jiffies;
  }
  void next_try(zorv_filter* f) {
    for (u32 kind = 0; kind < zorv_hold_kinds; ++kind) {
      const u32 bit = 1U << kind;
      if ((kinds & bit) != 0 && work_for(f, kind, ++tries[kind])) kinds &= ~bit;
    }
    pause = pause * 2 < longest_pause_jiffies ? pause * 2 : longest_pause_jiffies;
    if (!zorv_marks_pending(f)) pause = excused_pause_jiffies;
  }
};

int mark_worker(void* arg) {
  auto* f = static_cast<zorv_filter*>(arg);
  zorv_mark_worker& w = f->worker;
  char name[32];
  std::snprintf(name, sizeof name, "kdirtyd-%u", f->filter_minor);
  kernel::daemonize(name);
  failures failed;
  while (!w.ending.load() || in_hand_of(f) != nullptr) {
    const auto wanted = [f, &w] { return w.ending.load() || in_hand_of(f) != nullptr; };
    if (failed.kinds == 0) {
      kernel::wait_event(&w.wait, wanted, kernel::TASK_INTERRUPTIBLE);
    } else if (!kernel::wait_event_timeout(&w.wait, wanted, failed.pause)) {
      failed.next_try(f);
    }
    if (zorv_dirty_req* req = in_hand_of(f); req != nullptr) {
      if (is_active(req)) failed.first_try(f, static_cast<u32>(req->type));
      finish(req);
    }
  }
  return kernel::complete_and_exit(&w.exited, 0);
}

int start_worker(zorv_mark_worker* w, int (*body)(void*), zorv_filter* f) {
  kernel::init_completion(&w->exited);
  const int rc = kernel::kernel_thread(body, f, 0);
  w->started = rc >= 0;
  return rc < 0 ? rc : 0;
}

void end_worker(zorv_mark_worker* w) {
  if (!w->started) return;
  w->ending.store(true);
  kernel::wake_up_all(&w->wait);
  kernel::wait_for_completion(&w->exited);
  w->ending.store(false);
  w->started = false;
}

// ---- kdirtyd -----------------------------------------------------------------------------------

void handle_next() {
  zorv_dirty_req* req = nullptr;
  zorv_filter* f = nullptr;
  {
    kernel::spin_guard guard(&req_spin);
    req = next_locked();
    if (req == nullptr) return;
    f = req->filter;
    busy_filter = f;
    req->in_hand = f->worker.busy = true;
  }
  kernel::wake_up_all(&f->worker.wait);
  {
    kernel::spin_guard guard(&req_spin);
    busy_filter = nullptr;
  }
  kernel::wake_up_all(&idle_wait);
}

void drop_all() {
  kernel::list_of<zorv_dirty_req> dropped;
  {
    kernel::spin_guard guard(&req_spin);
    for (zorv_dirty_req& req : req_list) {
      if (req.in_hand) continue;
      remove_locked(&req);
      req.again = false;
      if (!req.reserve) dropped.push_back(&req.link);
    }
  }
  while (zorv_dirty_req* req = dropped.front()) {
    req->link.unlink();
    free_req(req);
  }
}

int kdirtyd(void*) {
  zorv_log(1, "%s(): Started.", __func__);
  kernel::daemonize("kdirtyd");
  while (kdirtyd_abort.load() == 0) {
    zorv_log(2, "%s(): Waiting for dirty requests to come...", __func__);
    kernel::wait_event(
        &req_wait, [] { return has_next() || kdirtyd_abort.load() != 0; },
        kernel::TASK_INTERRUPTIBLE);
    if (kdirtyd_abort.load() != 0) break;
    zorv_log(2, "%s(): Got %d requests in queue", __func__, req_cnt.load());
    handle_next();
  }
  drop_all();
  zorv_log(1, "%s(): Terminated.", __func__);
  return kernel::complete_and_exit(&kdirtyd_exited, 0);
}

void cancel_locked(const zorv_filter* f, u32 type) REQUIRES(req_spin) {
  for (zorv_dirty_req& req : req_list) {
    if (req.filter != f || req.type != static_cast<s32>(type)) continue;
    req.active = 0;
    req.again = false;
  }
}

}  // namespace

int zorv_start_kdirtyd() {
  zorv_log(1, "%s(): Starting kdirtyd", __func__);
  if (kdirtyd_started != 0) {
    zorv_log(LOG_ERROR, "%s(): kdirtyd has already been started.", __func__);
    return -EALREADY;
  }
  kernel::init_completion(&kdirtyd_exited);
  drop_all();
  kdirtyd_abort.store(0);
  const int rc = kernel::kernel_thread(
      kdirtyd, nullptr, kernel::clone_fs | kernel::clone_files | kernel::clone_sighand);
  if (rc < 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to start kdirtyd: rc=%d", __func__, rc);
    return rc;
  }
  kdirtyd_started = 1;
  zorv_log(2, "%s(): kdirtyd has been started successfully: pid=%d", __func__, rc);
  return 0;
}

int zorv_stop_kdirtyd() {
  zorv_log(1, "%s(): Stopping kdirtyd", __func__);
  if (kdirtyd_started == 0) {
    zorv_log(LOG_ERROR, "%s(): kdirtyd is not running.", __func__);
    return -ESRCH;
  }
  kdirtyd_abort.store(1);
  kernel::wake_up(&req_wait);
  kernel::wait_for_completion(&kdirtyd_exited);
  kdirtyd_started = 0;
  zorv_log(2, "%s(): kdirtyd has been stopped successfully", __func__);
  return 0;
}

int zorv_start_mark_workers(zorv_filter* f) {
  int rc = start_worker(&f->worker, mark_worker, f);
  if (rc == 0) rc = start_worker(&f->note_worker, zorv_note_worker, f);
  if (rc != 0) {
    zorv_log(LOG_ERROR, "%s(): Failed to start the threads of zorv(%d, %d): rc=%d", __func__,
             zorv_blk_major, f->filter_minor, rc);
  }
  return rc;
}

int zorv_sched_write_dirty_flag(zorv_filter* f, u32 type) {
  zorv_log(2, "%s(): Appending dirty request for %s bitmap of zorv(%d, %d)", __func__,
           zorv_bmp_type_name(type), zorv_blk_major, f->filter_minor);
  auto* req = kernel::knew<zorv_dirty_req>(kernel::GFP_NOIO);
  if (req == nullptr) zorv_log(LOG_ERROR, "%s(): Memory allocation failure", __func__);
  zorv_dirty_req* unused = req;
  {
    kernel::spin_guard bits(&f->bmp_lock);
    zorv_hold& hold = f->holds[type];
    if (hold.noted) {
      hold.noted = false;
      unused = nullptr;
      kernel::spin_guard guard(&req_spin);
      if (req != nullptr) {
        append_locked(req, f, type);
      } else {
        append_reserve_locked(&hold.reserve, f, type);
      }
    }
  }
  free_req(unused);
  kernel::wake_up(&req_wait);
  return req != nullptr ? 0 : -ENOMEM;
}

int zorv_kill_dirty_requests(zorv_filter* f, u32 type) {
  zorv_log(2, "%s(): Killing all dirty requests for %s bitmap of zorv(%d, %d)", __func__,
           zorv_bmp_type_name(type), zorv_blk_major, f->filter_minor);
  kernel::spin_guard guard(&req_spin);
  cancel_locked(f, type);
  return 0;
}

void zorv_marks_cancel(zorv_filter* f, u32 type) {
  f->holds[type].noted = false;
  kernel::spin_guard guard(&req_spin);
  cancel_locked(f, type);
}

bool zorv_marks_queued(const zorv_filter* f, u32 type) {
  kernel::spin_guard guard(&req_spin);
  for (zorv_dirty_req& req : req_list) {
    if (req.filter == f && req.type == static_cast<s32>(type) && (req.active != 0 || req.again)) {
      return true;
    }
  }
  return false;
}

int zorv_yield_to_dirty_requests(zorv_filter* f, u32 seconds) {
  const auto none_left = [f] {
    kernel::spin_guard guard(&req_spin);
    for (const zorv_dirty_req& req : req_list) {
      if (req.filter == f) return false;
    }
    return true;
  };
  if (kernel::wait_event_timeout(&idle_wait, none_left, seconds * kernel::HZ)) return 0;
  zorv_log(LOG_ERROR,
           "%s(): There are still some dirty requests pending for zorv(%d, %d). Continuing "
           "anyway...",
           __func__, zorv_blk_major, f->filter_minor);
  return -ETIMEDOUT;
}

namespace {

bool hangs(const zorv_mark_worker& w) {
  const u64 since = w.since.load();
  return since != 0 && kernel::time_after_eq(kernel::jiffies(), since + file_limit_jiffies);
}

}  // namespace

int zorv_marks_await_rest(zorv_filter* f) {
  const auto at_rest = [f] {
    kernel::spin_guard guard(&req_spin);
    return busy_filter != f && !f->worker.busy && f->worker.since.load() == 0 &&
           f->note_worker.since.load() == 0;
  };
  while (!kernel::wait_event_timeout(&idle_wait, at_rest, kernel::HZ / 10)) {
    if (!hangs(f->worker) && !hangs(f->note_worker)) continue;
    zorv_log(LOG_ERROR, "%s(): Marking the files of zorv(%d, %d) makes no progress", __func__,
             zorv_blk_major, f->filter_minor);
    return -EBUSY;
  }
  return 0;
}

void zorv_drop_dirty_requests(zorv_filter* f) {
  kernel::list_of<zorv_dirty_req> dropped;
  {
    kernel::spin_guard guard(&req_spin);
    for (zorv_dirty_req& req : req_list) {
      if (req.filter != f) continue;
      req.active = 0;
      req.again = false;
      if (req.in_hand) continue;  // whoever has it takes it off the list
      remove_locked(&req);
      if (!req.reserve) dropped.push_back(&req.link);
    }
  }
  while (zorv_dirty_req* req = dropped.front()) {
    req->link.unlink();
    free_req(req);
  }
  kernel::wait_event(&idle_wait, [f] {
    kernel::spin_guard guard(&req_spin);
    return busy_filter != f;
  });
  kernel::wait_event(&idle_wait, [f] { return in_hand_of(f) == nullptr; });
  end_worker(&f->worker);
  end_worker(&f->note_worker);
}

}  // namespace zorv
